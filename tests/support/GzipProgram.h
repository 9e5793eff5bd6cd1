// The gzip program, which nobody here wrote, for the other side of what unpacks.
#pragma once

#include <QByteArray>

namespace tarn::test {

/// @p data as the gzip program compresses it.
QByteArray gzip(const QByteArray& data);

} // namespace tarn::test
