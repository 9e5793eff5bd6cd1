// Fetches Apache's machine-readable status page (https://httpd.apache.org/docs/2.4/mod/mod_status.html).
// Reading it is HostFiles' part. Logs nothing.
#pragma once

#include <QByteArray>
#include <QString>

namespace tarn {

/// The page at @p url, an http or https address. Empty when it cannot be had: no answer for three seconds,
/// not whole after ten, more than a megabyte of it, any answer but "200 OK" (redirects are not followed).
/// Waits in a local event loop, which serves timers.
QByteArray fetchStatusPage(const QString& url);

} // namespace tarn
