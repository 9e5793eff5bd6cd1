// The one PostgreSQL session of the process: the default connection of Qt's SQL module.
// Opened once by main, looked after by ensure(); everybody else makes QSqlQuery objects on it.
// Main thread only.
#pragma once

#include <QString>

class QSettings;
class QSqlDatabase;
class QSqlQuery;

namespace tarn::db {

/// Creates and opens the session from the `database/...` settings and sets its time zone.
/// @p applicationName is what the server shows as application_name. False when it could not be opened
/// (logged).
bool open(const QSettings& settings, const QString& applicationName);

/// The session as it is. Asking Qt for it in the plain way opens a closed one, behind ensure()'s back.
QSqlDatabase session();

/// Makes sure that the session is usable, reconnecting if it is lost, or in any case when @p force is true.
/// A reconnected session has the time zone and the notification channels of the lost one again, however many
/// attempts it took. One attempt a call; false when it failed (logged).
bool ensure(bool force);

/// Runs a prepared query. A failure is logged as "sql: ..." and gives false.
bool exec(QSqlQuery& query);
/// Runs @p statement, which has no values to bind, on @p query, for its result. The same with a failure.
bool exec(QSqlQuery& query, const QString& statement);

/// Runs @p statement, which has no values to bind and no result. A failure is logged, and gives false.
bool run(const QString& statement);

/// Logs @p reason as "sql: ...". Behind the first statement that fails with a lost session the driver gives
/// no reason; the line then names that loss.
void logFailure(const QString& reason);

/// The same for a statement that has to do with secrets. Of the server's reason only the first line is
/// logged, and the bound texts are taken out of it: the lines behind it can show all values of a row.
bool execSecret(QSqlQuery& query);

/// The highest migration the suite's admin tool has recorded; 0 when there is none, or no such table.
int schemaVersion();

/// @p name quoted as a PostgreSQL identifier; NUL characters, which no identifier can hold, are removed.
QString ident(const QString& name);

/// @p text as it is to be bound to a column that is not to be NULL: never a null string, which the driver
/// takes for NULL, and without NUL characters, the only ones that PostgreSQL's text cannot hold. JSON
/// ("\u0000") and URLs ("%00") make them, and a statement that contains one is cut there.
QString storable(QString text);

} // namespace tarn::db
