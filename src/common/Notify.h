// Tells the administrator that an alert has opened or ended, by webhook and by e-mail, as the settings file
// says. Keeps nothing: a message that cannot be delivered is reported, logged and lost.
#pragma once

#include "common/NotifyMessage.h"

class QJsonArray;
class QJsonObject;
class QSettings;

namespace tarn::notify {

/// Reads the `notify/...` settings and `web/public_url`. Values are taken as they are written: whether they
/// make sense shows when a message is sent. A port that is no number of 32 bits is 0. Recipients are trimmed,
/// and empty ones left out.
Config load(const QSettings& settings);

/// What is configured, for the panel: {"webhook": "ntfy · ntfy.example.org",
/// "email": "to a@example.org, b@example.org via mail.example.org:465"}. A channel that is not configured is
/// left out. Of a webhook's address, which can contain a secret, only the host is shown.
QJsonObject describe(const Config& config);

/// Delivers @p message over every configured channel, one after the other. Title, text and time are the same
/// for all; the time is that of the call. Returns an entry for each channel:
/// {"channel": "webhook", "ok": false, "error": "..."}, {"channel": "email", "ok": true}. Failures are logged
/// as well. Returns after some 10 seconds a step at worst. The waits run a local event loop, so that timers
/// are served meanwhile: never to be called with a transaction open.
QJsonArray send(const Config& config, const Message& message);

} // namespace tarn::notify
