// The product's database session, opened as its program does it, on a database of the test's server. For the
// tests of what runs on that session; whoever includes this links the product's common library.
#pragma once

#include "common/Db.h"
#include "common/Prepared.h"
#include "support/PostgresServer.h"

#include <QMap>
#include <QSettings>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QTest>
#include <QVariant>

namespace tarn::test {

/// What value() and run() of the server's header do, on the product's session.
inline QString scalar(const QString& statement)
{
    return value(db::session(), statement);
}
inline void run(const QString& statement)
{
    run(db::session(), statement);
}

class ProductSession
{
public:
    explicit ProductSession(PostgresServer& server)
        : m_server(server)
    {
    }

    /// Opens it with @p settings ("database/timezone", ...), on a new database if they name none.
    bool open(const QMap<QString, QVariant>& settings = {})
    {
        using namespace Qt::Literals::StringLiterals;
        QSettings file(m_folder.filePath(u"session-%1.ini"_s.arg(++m_files)), QSettings::IniFormat);
        file.setValue(u"database/host"_s, m_server.socketFolder());
        file.setValue(u"database/user"_s, u"postgres"_s);
        for (auto it = settings.cbegin(); it != settings.cend(); ++it)
            file.setValue(it.key(), it.value());
        if (!file.contains(u"database/name"_s))
            file.setValue(u"database/name"_s, m_server.createDatabase());
        return db::open(file, u"tarn-collect"_s);
    }

    /// Closes it, and other(). The running test fails if a transaction or a query's prepared statement was
    /// left open, or more of the session's own statements than it may keep.
    void close()
    {
        using namespace Qt::Literals::StringLiterals;
        const auto clean = u"0 prepared by queries, too many by the session: f, in a transaction: f"_s;
        // In a transaction the time stands still.
        const QString left =
            db::session().isOpen()
                ? scalar(u"SELECT format('%s prepared by queries, too many by the session: %s, in a "
                         "transaction: %s', count(*) FILTER (WHERE name NOT LIKE 'tarn%'), coalesce("
                         "sum(cardinality(parameter_types) + %1) FILTER (WHERE name LIKE 'tarn%') > %2, "
                         "false), now() <> statement_timestamp()) FROM pg_prepared_statements"_s
                             .arg(db::kPlaceholdersPerStatement)
                             .arg(db::kMaxPlaceholders))
                : clean;
        QSqlDatabase::removeDatabase(u"other"_s);
        QSqlDatabase::removeDatabase(QLatin1StringView(QSqlDatabase::defaultConnection));
        QCOMPARE(left, clean);
    }

    /// A session of somebody else on the same database.
    QSqlDatabase other() const
    {
        return m_server.connect(db::session().databaseName(), QStringLiteral("other"));
    }

    /// Has @p other end the session's backend, as a restart of the server does. The client learns of it with
    /// its next statement; while it listens to a channel, in its event loop as well.
    static void endBackend(const QSqlDatabase& other)
    {
        using namespace Qt::Literals::StringLiterals;
        const QString backend = scalar(u"SELECT pg_backend_pid()"_s);
        test::run(other, u"SELECT pg_terminate_backend(%1, 5000)"_s.arg(backend));
    }

    /// The same for a session that listens, until the client knows.
    static void lose(const QSqlDatabase& other)
    {
        endBackend(other);
        QVERIFY(QTest::qWaitFor([] { return !db::session().isOpen(); }));
    }

private:
    PostgresServer& m_server;
    QTemporaryDir m_folder;
    int m_files = 0;
};

} // namespace tarn::test
