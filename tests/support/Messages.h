// What the running code logs.
#pragma once

#include <QStringList>

#include <functional>

namespace tarn::test {

/// Calls @p body with all messages caught, and returns them: around a lost session the driver has remarks of
/// its own, which no test can name.
QStringList messagesOf(const std::function<void()>& body);

} // namespace tarn::test
