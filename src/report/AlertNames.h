// What the kinds of alerts are called on the page of the host.
#pragma once

#include <QString>

namespace tarn::report {

/// "Disk limit" for "quota"; a kind that is not known stays as it is.
QString alertName(const QString& kind);
/// The same for the line of a kind's spans, which has room for eight letters: "Quota".
QString shortAlertName(const QString& kind);

} // namespace tarn::report
