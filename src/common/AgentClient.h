// Asks the suite's agent, which runs with other rights than the collector, to do something. Each call has a
// connection of its own, with one request and one answer.
#pragma once

#include <QJsonObject>
#include <QString>

namespace tarn {

/// Sends {"cmd": method, "args": args} as one line to the Unix-domain socket @p socketPath and returns the
/// object of the line that answers. By convention it has "ok" (bool) and, on failure, "error" (text).
/// This function makes {"ok": false, "error": "agent not reachable"} and {"ok": false, "error": "agent did
/// not answer"}, the second also for a line of more than 64 MiB. A line that is no JSON object gives an empty
/// one.
/// @p timeoutMs limits each wait, not the whole call; 0 and less mean no wait. Blocks without an event loop.
/// Any thread may call it.
QJsonObject callAgent(const QString& socketPath, const QString& method, const QJsonObject& args,
                      int timeoutMs);

} // namespace tarn
