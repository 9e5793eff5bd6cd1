#include "common/Db.h"

#include "common/ClientLibrary.h"
#include "common/Settings.h"

#include <QAbstractEventDispatcher>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QTimeZone>

#include <optional>
#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::db {

namespace {

/// Seconds that the client library waits for a server that takes the connection and says nothing. Without a
/// limit it waits for minutes, and holds the event loop up.
constexpr auto kConnectTimeout = "10";

/// SQLSTATE of a statement that does not parse.
constexpr auto kSyntaxError = "42601"_L1;

QString g_timeZone;

/// The notification channels to subscribe again. The driver forgets them when the connection is closed. They
/// stay in this list from the first sign of a loss until each is subscribed.
QStringList g_lostChannels;

void setTimeZone()
{
    QSqlQuery query;
    query.prepare(kTimeZoneSetting);
    query.addBindValue(g_timeZone);
    exec(query);
}

/// The client library's own view of the session, kConnectionOk when it cannot be asked.
int connectionStatus(const QSqlDatabase& database)
{
    const ClientLibrary* library = clientLibrary();
    const Connection* connection = connectionOf(database);
    return library && connection ? library->status(connection) : kConnectionOk;
}

void rememberChannels(const QSqlDatabase& database)
{
    const QStringList channels = database.driver()->subscribedToNotifications();
    for (const QString& channel : channels) {
        if (!g_lostChannels.contains(channel))
            g_lostChannels.append(channel);
    }
}

/// Closes a dead session before the event loop waits again. The client library has closed the socket by then,
/// but the driver's notifier would go on watching its number. That gives a warning at best. Once another file
/// has taken the number, the loop would run at full speed.
void closeIfLost()
{
    const QSqlDatabase database = session();
    if (!database.driver()->subscribedToNotifications().isEmpty() && !database.isOpen())
        closeSession();
}

bool reconnect(QSqlDatabase& database)
{
    closeSession();
    if (!database.open()) {
        qWarning("database: reconnect failed: %s", qPrintable(database.lastError().text()));
        return false;
    }
    setTimeZone();
    const QStringList channels = g_lostChannels;
    for (const QString& channel : channels) {
        // A channel that fails now (the server is gone again) stays on the list for the next attempt.
        if (database.driver()->subscribeToNotification(channel))
            g_lostChannels.removeOne(channel);
    }
    qInfo("database: reconnected");
    return true;
}

} // namespace

bool open(const QSettings& settings, const QString& applicationName)
{
    if (!qEnvironmentVariableIsSet("PGCONNECT_TIMEOUT"))
        qputenv("PGCONNECT_TIMEOUT", kConnectTimeout);

    const auto text = [&settings](const Setting& setting) {
        return settingValue(settings, setting).toString();
    };
    QSqlDatabase database = QSqlDatabase::addDatabase(u"QPSQL"_s);
    database.setHostName(text(settingOf(kDatabaseSettings, "database/host")));
    database.setPort(settingValue(settings, settingOf(kDatabaseSettings, "database/port")).toInt());
    database.setDatabaseName(text(settingOf(kDatabaseSettings, "database/name")));
    database.setUserName(text(settingOf(kDatabaseSettings, "database/user")));
    database.setPassword(text(settingOf(kDatabaseSettings, "database/password")));
    database.setConnectOptions(u"application_name="_s + applicationName
                               + u";options='-c client_min_messages=warning'"_s);
    if (!database.open()) {
        qCritical("database: %s", qPrintable(database.lastError().text()));
        return false;
    }
    if (const QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance()) {
        QObject::connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, database.driver(), closeIfLost);
        QObject::connect(dispatcher, &QAbstractEventDispatcher::awake, database.driver(), closeIfLost);
    }
    const QString systemZone = QString::fromLatin1(QTimeZone::systemTimeZoneId());
    g_timeZone =
        settingValue(settings, settingOf(kDatabaseSettings, "database/timezone"), systemZone).toString();
    setTimeZone();
    return true;
}

QSqlDatabase session()
{
    return QSqlDatabase::database(QLatin1StringView(QSqlDatabase::defaultConnection), false);
}

void closeSession()
{
    QSqlDatabase database = session();
    rememberChannels(database);
    delete database.driver()->findChild<QObject*>(kSessionKeep, Qt::FindDirectChildrenOnly);
    database.close();
}

bool ensure(bool force)
{
    QSqlDatabase database = session();
    if (!force && database.isOpen() && connectionStatus(database) == kConnectionOk)
        return true;
    return reconnect(database);
}

std::optional<QString> runForReason(QSqlQuery& query)
{
    const QSqlError earlier = query.lastError();
    if (query.exec())
        return std::nullopt;
    // Qt runs a statement even if it could not be prepared, without its name, and the server calls that a
    // syntax error. Only prepare() tells the real reason.
    const bool unprepared = query.lastError().nativeErrorCode() == kSyntaxError && earlier.isValid();
    return unprepared ? earlier.text() : query.lastError().text();
}

bool exec(QSqlQuery& query)
{
    const std::optional<QString> reason = runForReason(query);
    if (reason)
        logFailure(*reason);
    return !reason;
}

bool execSecret(QSqlQuery& query)
{
    const std::optional<QString> reason = runForReason(query);
    if (!reason)
        return true;
    QString shown = reason->section(u'\n', 0, 0);
    const QVariantList values = query.boundValues();
    for (const QVariant& value : values) {
        if (!value.toString().isEmpty())
            shown.replace(value.toString(), u"***"_s);
    }
    logFailure(shown);
    return false;
}

bool exec(QSqlQuery& query, const QString& statement)
{
    if (query.exec(statement))
        return true;
    logFailure(query.lastError().text());
    return false;
}

bool run(const QString& statement)
{
    QSqlQuery query;
    return exec(query, statement);
}

void logFailure(const QString& reason)
{
    if (reason.trimmed().isEmpty() && !session().isOpen()) {
        qWarning("sql: the session with the server is lost");
        return;
    }
    qWarning("sql: %s", qPrintable(reason));
}

int schemaVersion()
{
    QSqlQuery query;
    if (!query.exec(kSchemaCheck) || !query.next() || !query.value(0).toBool()) {
        return 0;
    }
    if (!query.exec(kSchemaVersionQuery) || !query.next())
        return 0;
    return query.value(0).toInt();
}

QString ident(const QString& name)
{
    QString quoted = name;
    quoted.remove(QChar::Null);
    quoted.replace(u'"', u"\"\""_s);
    return u'"' + quoted + u'"';
}

QString storable(QString text)
{
    if (text.isEmpty())
        return u""_s;
    if (!text.contains(QChar::Null))
        return text;
    // Without a branch for each character: a text can consist of them.
    QString kept(text.size(), Qt::Uninitialized);
    QChar* out = kept.data();
    for (const QChar c : std::as_const(text)) {
        *out = c;
        out += c.isNull() ? 0 : 1;
    }
    kept.truncate(out - kept.constData());
    return kept;
}

} // namespace tarn::db
