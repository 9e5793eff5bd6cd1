// Every key of the settings file that the collector reads: its default, its unit, its range and its meaning,
// in one table for each reader. A default stands here and in packaging/tarnhold.ini only.
//
// Reading changes nothing in a value: what does not convert is 0, as Qt has it. checkSettings() says which
// values those are.
#pragma once

#include <QVariant>

#include <array>
#include <limits>
#include <span>
#include <string_view>

class QSettings;

namespace tarn {

/// How the value of a key is read.
enum class SettingKind : quint8 {
    Text,   ///< any text; nothing to be checked, and never shown: it can be a secret
    List,   ///< texts with commas between them; likewise
    Flag,   ///< QVariant::toBool(): "", "0" and "false" are false, everything else is true
    Word,   ///< one of a few words
    Whole,  ///< QVariant::toInt()
    Port,   ///< as portNumber() reads it
    Number, ///< QVariant::toDouble()
};

struct Setting
{
    std::string_view key;        ///< "section/key"
    std::string_view standard;   ///< the default, as it would stand in the file; empty: none, or computed
    bool hasFixedDefault = true; ///< false: the reader computes the default, as the meaning says
    SettingKind kind = SettingKind::Text;
    std::string_view unit = {}; ///< of a number
    double least = 0;           ///< of a number
    double most = 0;
    std::string_view words = {}; ///< of a Word: with blanks between them; the last counts for every other
    std::string_view meaning = {};
};

inline constexpr double kMaxWhole = 2'147'483'647;
/// Of a threshold: one that is never reached keeps its alert shut, which somebody can want.
inline constexpr double kNoMost = std::numeric_limits<double>::infinity();

// clang-format off

inline constexpr auto kDatabaseSettings = std::to_array<Setting>({
    {.key = "database/host", .standard = "/var/run/postgresql", .meaning = "folder of the server's socket, or a host name"},
    {.key = "database/port", .standard = "5432", .kind = SettingKind::Whole, .least = 1, .most = 65'535, .meaning = "port of the server"},
    {.key = "database/name", .standard = "tarnhold", .meaning = "the database"},
    {.key = "database/user", .standard = "", .meaning = "role; empty: the operating system's user"},
    {.key = "database/password", .standard = "", .meaning = "password of the role"},
    {.key = "database/timezone", .standard = "", .hasFixedDefault = false, .meaning = "zone of the session; default: the host's"},
});

inline constexpr auto kTimerSettings = std::to_array<Setting>({
    {.key = "collect/interval_seconds", .standard = "30", .kind = SettingKind::Whole, .unit = "seconds", .least = 1, .most = kMaxWhole, .meaning = "from one sample to the next"},
    {.key = "hosting/usage_minutes", .standard = "15", .kind = SettingKind::Whole, .unit = "minutes", .least = 1, .most = kMaxWhole, .meaning = "from one measurement of the accounts to the next"},
});

inline constexpr auto kHealthSettings = std::to_array<Setting>({
    {.key = "health/apache_status_url", .standard = "http://127.0.0.1/server-status?auto", .meaning = "Apache's status page; empty: not looked at"},
    {.key = "health/disk_alert_pct", .standard = "90", .kind = SettingKind::Number, .unit = "percent", .least = 1, .most = kNoMost, .meaning = "of a disk in use"},
    {.key = "health/memory_alert_pct", .standard = "90", .kind = SettingKind::Number, .unit = "percent", .least = 1, .most = kNoMost, .meaning = "of the memory in use"},
    {.key = "health/load_alert_per_cpu", .standard = "2", .kind = SettingKind::Number, .least = 0.01, .most = kNoMost, .meaning = "load of one minute for each processor"},
    {.key = "health/temperature_alert_c", .standard = "85", .kind = SettingKind::Number, .unit = "degrees Celsius", .least = 1, .most = kNoMost, .meaning = "of the hottest processor"},
    {.key = "health/apache_busy_alert_pct", .standard = "90", .kind = SettingKind::Number, .unit = "percent", .least = 1, .most = kNoMost, .meaning = "of Apache's workers that are busy"},
    {.key = "hosting/db_limit_read_only", .standard = "true", .kind = SettingKind::Flag, .meaning = "whether databases over their limit become read-only"},
    {.key = "agent/socket", .standard = "/run/tarnhold/agent.sock", .meaning = "socket of the suite's agent"},
});

inline constexpr auto kServiceSettings = std::to_array<Setting>({
    {.key = "health/services", .standard = "apache2,postgresql", .kind = SettingKind::List, .meaning = "systemd units that have to be running"},
});

inline constexpr auto kGoogleSettings = std::to_array<Setting>({
    {.key = "google/client_id", .standard = "", .meaning = "the OAuth client; empty: Google is not asked"},
    {.key = "google/client_secret", .standard = "", .meaning = "its secret; empty: Google is not asked"},
    {.key = "web/public_url", .standard = "http://localhost:8095", .hasFixedDefault = false, .meaning = "address of the panel, where Google sends the administrator back to"},
});

inline constexpr auto kNotifySettings = std::to_array<Setting>({
    {.key = "notify/host_name", .standard = "", .hasFixedDefault = false, .meaning = "this server's name in messages; default: the host's"},
    {.key = "web/public_url", .standard = "", .hasFixedDefault = false, .meaning = "address of the panel, for links; default: none"},
    {.key = "notify/webhook_url", .standard = "", .meaning = "address of the webhook; empty: none"},
    {.key = "notify/webhook_format", .standard = "ntfy", .meaning = "ntfy, discord, slack; anything else: plain JSON"},
    {.key = "notify/smtp_host", .standard = "", .meaning = "the mail server; empty: no mail"},
    {.key = "notify/smtp_security", .standard = "ssl", .kind = SettingKind::Word, .words = "ssl starttls none", .meaning = "how the connection is encrypted"},
    {.key = "notify/smtp_port", .standard = "", .hasFixedDefault = false, .kind = SettingKind::Port, .least = 1, .most = 65'535, .meaning = "port of the mail server; default: 465, 587 or 25, by smtp_security"},
    {.key = "notify/smtp_user", .standard = "", .meaning = "name for the sign-in; empty: none"},
    {.key = "notify/smtp_password", .standard = "", .meaning = "password for the sign-in"},
    {.key = "notify/mail_from", .standard = "", .hasFixedDefault = false, .meaning = "the sender; default: smtp_user"},
    {.key = "notify/mail_to", .standard = "", .kind = SettingKind::List, .meaning = "recipients; empty: no mail"},
});

// clang-format on

/// All tables, in the order of the start.
inline constexpr auto kAllSettings = std::to_array<std::span<const Setting>>(
    {kDatabaseSettings, kTimerSettings, kHealthSettings, kServiceSettings, kGoogleSettings, kNotifySettings});

/// The row of @p key in @p table; a key that is not there does not compile.
consteval const Setting& settingOf(std::span<const Setting> table, std::string_view key)
{
    for (const Setting& row : table) {
        if (row.key == key)
            return row;
    }
    throw "no such setting";
}

/// What the file says of a key, else its default; invalid when it has none.
QVariant settingValue(const QSettings& settings, const Setting& setting);
/// The same with @p computed for a default.
QVariant settingValue(const QSettings& settings, const Setting& setting, const QVariant& computed);

/// A port as a setting gives it. 0, which is no port either, for what is no number of 32 bits.
qint32 portNumber(const QVariant& value);

/// Why the value of @p setting is not what its table asks for, and what is used instead:
/// "collect/interval_seconds=30s is no whole number; 0 is used". Empty when there is nothing to say, as for
/// every text. The value is shown with 80 characters at most.
QString settingProblem(const QSettings& settings, const Setting& setting);

/// Logs each problem of @p settings as a warning, "settings: ...". To be called once, at the start.
void checkSettings(const QSettings& settings);

} // namespace tarn
