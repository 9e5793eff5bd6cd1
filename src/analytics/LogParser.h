// One line of an Apache access log -> one record. Knows no file, site or database.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <optional>

namespace tarn::analytics {

/// A request as the web server has logged it. Byte strings hold the log's bytes with the backslashes of
/// Apache's escaping removed, in no particular encoding; a stranger chooses what stands in them.
struct LogLine
{
    QString ip;            ///< first field as written; not necessarily an address
    QDateTime at;          ///< UTC
    QByteArray method;     ///< empty when the request field is empty
    QByteArray target;     ///< path and query as sent; empty when there is none
    qint32 status = 0;     ///< HTTP status
    qint64 bytes = 0;      ///< size of the response; 0 when it is logged as "-"
    QByteArray referrer;   ///< empty when it is logged as "-", or missing
    QByteArray userAgent;  ///< empty when it is logged as "-", or missing
    qint64 responseUs = 0; ///< Apache's %D; 0 when the last field of the line is not a number
};

/// Parses @p line, given without its line feed, in the combined format (Apache's mod_log_config manual),
/// which further fields may follow. If the last of them is all digits, it is the response time in
/// microseconds:
///
///     127.0.0.1 - - [10/Oct/2024:13:55:36 +0200] "GET /a?b=1 HTTP/1.1" 200 2326 "-" "Mozilla/5.0" 1234
///     ip            at                            method target        status bytes referrer userAgent
///     responseUs
///
/// Nothing when the time, the request field or the status cannot be read. Referrer, user agent, size and
/// response time may be missing or spoilt.
std::optional<LogLine> parseCombined(QByteArrayView line);

} // namespace tarn::analytics
