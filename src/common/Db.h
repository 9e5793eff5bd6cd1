// The one PostgreSQL session of the process: the default connection of Qt's SQL module.
// Opened once by main, looked after by ensure(); everybody else makes QSqlQuery objects on it.
// Main thread only.
#pragma once

#include <QLatin1StringView>
#include <QString>

#include <optional>

class QSettings;
class QSqlDatabase;
class QSqlQuery;

namespace tarn::db {

/// Creates and opens the session from the `database/...` settings (kDatabaseSettings) and sets its time zone
/// to `database/timezone`, an IANA name, or the host's. @p applicationName is what the server shows as
/// application_name. False when it could not be opened: "database: ..." is logged as critical. A time zone
/// that the server does not know is logged as "sql: ..." and is no failure. Waits for 10 seconds at most,
/// unless the environment sets PGCONNECT_TIMEOUT (libpq's variable). To be called once, after the application
/// object is made.
bool open(const QSettings& settings, const QString& applicationName);

/// The session as it is. Asking Qt for it in the plain way opens a closed one, behind ensure()'s back.
QSqlDatabase session();

/// Makes sure that the session is usable. Reconnects if it is lost, or in any case when @p force is true: one
/// attempt a call, which waits as open() does. A reconnected session has the time zone and the notification
/// channels of the lost one again, however many attempts it took. False when the attempt failed ("database:
/// reconnect failed: ..."). Prepared queries of the lost session are void. Not to be called in a transaction.
bool ensure(bool force);

/// The name of the object below the driver that holds what is void without the session (Prepared's
/// statements).
inline constexpr auto kSessionKeep = QLatin1StringView("tarn-session-keep");

/// Closes the session until the next ensure(), which restores its channels. Deletes what is named
/// kSessionKeep.
void closeSession();

/// Runs a prepared query. False when it fails, which is logged as "sql: ...".
bool exec(QSqlQuery& query);
/// Runs @p statement, which has no values to bind, and leaves its result in @p query. Fails in the same way.
bool exec(QSqlQuery& query, const QString& statement);

/// Runs a prepared query without logging anything. The reason when it fails, else nothing.
std::optional<QString> runForReason(QSqlQuery& query);

/// Runs @p statement, which has neither values to bind nor a result. Fails in the same way.
bool run(const QString& statement);

/// Logs @p reason as "sql: ...". Behind the first statement that fails with a lost session the driver gives
/// no reason; the line then names that loss.
void logFailure(const QString& reason);

/// As exec(), for a statement that touches secrets. Of the server's reason only the first line is logged, and
/// "***" stands in it for each bound text: the lines behind it can show all values of a row.
bool execSecret(QSqlQuery& query);

/// Sets the session's time zone for good.
inline const QString kTimeZoneSetting = QStringLiteral("SELECT set_config('TimeZone', ?, false)");
/// Whether there is a table of migrations, and the highest of them.
inline const QString kSchemaCheck =
    QStringLiteral("SELECT to_regclass('tarn.schema_migrations') IS NOT NULL");
inline const QString kSchemaVersionQuery =
    QStringLiteral("SELECT coalesce(max(version), 0) FROM tarn.schema_migrations");

/// The highest migration the suite's admin tool has recorded; 0 when there is none, or no such table.
int schemaVersion();

/// @p name quoted as a PostgreSQL identifier; NUL characters, which no identifier can hold, are removed.
QString ident(const QString& name);

/// @p text as a column that is not NULL takes it. It is never a null string, which the driver takes for NULL.
/// It has no NUL characters: a statement is cut at one, and JSON ("\u0000") and URLs ("%00") can make them.
QString storable(QString text);

} // namespace tarn::db
