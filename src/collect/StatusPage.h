// Apache's status page for machines, "/server-status?auto" of mod_status
// (https://httpd.apache.org/docs/2.4/mod/mod_status.html): the record, the parser and the fetch. Logs
// nothing.
#pragma once

#include <QByteArray>
#include <QString>

namespace tarn {

/// What the page says:
///
///     Total Accesses: 123456      -> requests
///     Total kBytes: 7890123       -> bytes, as 7890123 * 1024
///     BusyWorkers: 3              -> busy
///     Scoreboard: _W_K__W_....    -> slotCount, one byte a slot
struct ApacheStatus
{
    bool found = false;   ///< the page has "Total Accesses"; without it everything else is 0
    qint64 requests = 0;  ///< since the start of the server
    qint64 bytes = 0;     ///< sent since the start of the server; 2^63 - 1 when there are more
    qint32 busy = 0;      ///< workers that serve a request
    qint32 slotCount = 0; ///< workers that there can be: busy, idle and empty slots
};

/// Never fails: a line that is missing counts as 0, and so does a value that is no number, is negative or has
/// more than 64 bytes. Of two lines with one name the last counts.
ApacheStatus parseApacheStatus(const QByteArray& text);

/// The page at @p url, an http or https address. Empty when it cannot be had: 3 seconds of silence, not whole
/// after 10 seconds, more than 1,048,576 bytes, or any answer but "200 OK" (redirects are not followed).
/// Waits in a local event loop, which serves timers.
QByteArray fetchStatusPage(const QString& url);

} // namespace tarn
