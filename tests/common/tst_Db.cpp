#include "common/Db.h"
#include "support/Messages.h"
#include "support/ProductSession.h"

#include <QRegularExpression>
#include <QSettings>
#include <QSignalSpy>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>
#include <QTimeZone>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::run;
using test::scalar;

class tst_Db : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session()
    {
        return QSqlDatabase::database(QLatin1StringView(QSqlDatabase::defaultConnection), false);
    }

    QString backendId() { return scalar(u"SELECT pg_backend_pid()"_s); }

    void killBackend() { run(m_session.other(), u"SELECT pg_terminate_backend(%1)"_s.arg(backendId())); }

    QStringList heardAfter(const QStringList& sent)
    {
        QSignalSpy spy(session().driver(), &QSqlDriver::notification);
        for (const QString& channel : sent)
            run(m_session.other(), u"SELECT pg_notify('%1', '')"_s.arg(channel));
        const auto arrived = [&] { return spy.size() >= sent.size(); };
        [[maybe_unused]] const bool all = QTest::qWaitFor(arrived, 5000);
        QStringList heard;
        for (const QList<QVariant>& arguments : spy)
            heard.append(arguments.at(0).toString());
        return heard;
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};
    QTemporaryDir m_folder;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void cleanup()
    {
        m_session.close();
        qputenv("TZ", "UTC");
    }

    void openShowsItsNameToTheServer()
    {
        QVERIFY(m_session.open());
        QCOMPARE(scalar(u"SELECT application_name FROM pg_stat_activity WHERE pid = pg_backend_pid()"_s),
                 u"tarn-collect"_s);
        QCOMPARE(scalar(u"SHOW client_min_messages"_s), u"warning"_s);
        QCOMPARE(session().connectOptions(),
                 u"application_name=tarn-collect;options='-c client_min_messages=warning'"_s);
    }

    void aFailureWithoutAReasonNamesTheLostSession()
    {
        QVERIFY(m_session.open());
        QTest::ignoreMessage(QtWarningMsg, "sql: no such thing");
        db::logFailure(u"no such thing"_s);
        QTest::ignoreMessage(QtWarningMsg, "sql:  "); // an open session is none that was lost
        db::logFailure(u" "_s);
        killBackend();
        const QStringList messages = test::messagesOf([] {
            for (int i = 0; i < 3; ++i) {
                QSqlQuery query;
                QVERIFY(!db::exec(query, u"SELECT 1"_s));
            }
            session().close();
            db::logFailure(u" "_s);
        });
        QVERIFY2(messages.filter(QRegularExpression(u"^sql: \\s*$"_s)).isEmpty(),
                 qPrintable(messages.join(u'|')));
        QCOMPARE(messages.last(), u"sql: the session with the server is lost"_s);
    }

    void openFailureIsCritical()
    {
        QTest::ignoreMessage(
            QtCriticalMsg,
            QRegularExpression(u"^database: .*database \"no_such_database\" does not exist"_s));
        QVERIFY(!m_session.open({
            {u"database/name"_s, u"no_such_database"_s}
        }));
    }

    void defaultsOfAnEmptySettingsFile()
    {
        const QSettings empty(m_folder.filePath(u"empty.ini"_s), QSettings::IniFormat);
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(u"^database: "_s));
        QVERIFY(!db::open(empty, u"tarn-collect"_s));
        QCOMPARE(session().hostName(), u"/var/run/postgresql"_s);
        QCOMPARE(session().port(), 5432);
        QCOMPARE(session().databaseName(), u"tarnhold"_s);
        QVERIFY(session().userName().isEmpty());
        QVERIFY(session().password().isEmpty());
    }

    void timeZoneOfTheSettings()
    {
        QVERIFY(m_session.open({
            {u"database/timezone"_s, u"America/New_York"_s}
        }));
        QCOMPARE(scalar(u"SHOW TimeZone"_s), u"America/New_York"_s);
    }

    void timeZoneOfTheHostByDefault_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::newRow("utc") << QByteArray("UTC");
        QTest::newRow("half-hour") << QByteArray("Asia/Kolkata");
    }
    void timeZoneOfTheHostByDefault()
    {
        QFETCH(const QByteArray, zone);
        qputenv("TZ", zone);
        QVERIFY(m_session.open());
        QCOMPARE(scalar(u"SHOW TimeZone"_s).toLatin1(), QTimeZone::systemTimeZoneId());
        QCOMPARE(scalar(u"SHOW TimeZone"_s).toLatin1(), zone);
    }

    void unknownTimeZoneIsOnlyLogged()
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*Middle-Earth"_s));
        QVERIFY(m_session.open({
            {u"database/timezone"_s, u"Middle-Earth"_s}
        }));
        QCOMPARE(scalar(u"SELECT 1"_s), u"1"_s);
    }

    void zoneOutlivesATransaction()
    {
        QVERIFY(m_session.open({
            {u"database/timezone"_s, u"Asia/Tokyo"_s}
        }));
        QVERIFY(session().transaction());
        QVERIFY(session().rollback());
        QCOMPARE(scalar(u"SHOW TimeZone"_s), u"Asia/Tokyo"_s);
    }

    void ensureLeavesAHealthySessionAlone()
    {
        QVERIFY(m_session.open());
        const QString before = backendId();
        QVERIFY(db::ensure(false));
        QCOMPARE(backendId(), before);
    }

    void ensureByForceReconnects()
    {
        QVERIFY(m_session.open({
            {u"database/timezone"_s, u"Asia/Tokyo"_s}
        }));
        QVERIFY(session().driver()->subscribeToNotification(u"first"_s));
        QVERIFY(session().driver()->subscribeToNotification(u"second"_s));
        const QString before = backendId();

        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(true));
        QVERIFY(backendId() != before);
        QCOMPARE(scalar(u"SHOW TimeZone"_s), u"Asia/Tokyo"_s);
        QCOMPARE(session().driver()->subscribedToNotifications(), QStringList({u"first"_s, u"second"_s}));
        QCOMPARE(heardAfter({u"second"_s, u"first"_s}), QStringList({u"second"_s, u"first"_s}));
    }

    void lossSeenByAStatementIsRepairedByTheNextEnsure()
    {
        QVERIFY(m_session.open());
        killBackend();
        QSqlQuery query;
        QVERIFY(!query.exec(u"SELECT 1"_s));
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
        QCOMPARE(scalar(u"SELECT 1"_s), u"1"_s);
    }

    void lossSeenByTheEventLoopIsRepairedByTheNextEnsure()
    {
        QVERIFY(m_session.open());
        QVERIFY(session().driver()->subscribeToNotification(u"news"_s));
        killBackend();
        // No warning of an invalid socket may come while the loop runs on.
        QTRY_VERIFY(!session().isOpen());
        QTest::qWait(200);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
        QCOMPARE(heardAfter({u"news"_s}), QStringList({u"news"_s}));
    }

    void channelsSurviveFailedReconnects()
    {
        QVERIFY(m_session.open());
        QVERIFY(session().driver()->subscribeToNotification(u"first"_s));
        QVERIFY(session().driver()->subscribeToNotification(u"second"_s));
        m_server.stop();
        QTRY_VERIFY(!session().isOpen());
        for (int attempt = 0; attempt < 3; ++attempt) {
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^database: reconnect failed: .+"_s));
            QVERIFY(!db::ensure(false));
            QVERIFY(!session().isOpen());
        }
        QVERIFY(m_server.restart());
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
        QCOMPARE(session().driver()->subscribedToNotifications(), QStringList({u"first"_s, u"second"_s}));
        QCOMPARE(heardAfter({u"first"_s, u"second"_s}), QStringList({u"first"_s, u"second"_s}));
    }

    void execLogsTheServersReason()
    {
        QVERIFY(m_session.open());
        QSqlQuery query;
        query.prepare(u"SELECT CAST(? AS integer)"_s);
        query.addBindValue(u"twelve"_s);
        QTest::ignoreMessage(
            QtWarningMsg, QRegularExpression(u"^sql: .*invalid input syntax for type integer: \"twelve\""_s));
        QVERIFY(!db::exec(query));
        query.addBindValue(u"12"_s);
        QVERIFY(db::exec(query));
    }

    void execWithoutASessionSaysSo()
    {
        QVERIFY(m_session.open());
        QSqlQuery before;
        QVERIFY(before.prepare(u"SELECT 1"_s));
        killBackend();
        QSqlQuery first;
        QVERIFY(!first.exec(u"SELECT 1"_s));

        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: no connection to the server"_s));
        QVERIFY(!db::exec(before));

        QSqlQuery after;
        QTest::ignoreMessage(QtWarningMsg, "QSqlQuery::prepare: database not open");
        after.prepare(u"SELECT 1"_s);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: no connection to the server"_s));
        QVERIFY(!db::exec(after));
        // What the driver says when the first of the two goes out of scope.
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^Unable to free statement: "_s));
    }

    void execOfWhatCannotBePreparedGivesTheReasonOfThat()
    {
        QVERIFY(m_session.open());
        QSqlQuery query;
        QVERIFY(!query.prepare(u"SELECT ? FROM no_such_table"_s));
        query.addBindValue(1);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*no_such_table.*does not exist"_s));
        QVERIFY(!db::exec(query));
    }

    void secretsStayOutOfTheLog_data()
    {
        QTest::addColumn<QString>("column");
        QTest::addColumn<QString>("logged");
        QTest::newRow("detail-of-a-constraint")
            << u"text CHECK (false)"_s
            << u"^sql: ERROR:  new row for relation \"kept\" violates check constraint \"kept_check\"$"_s;
        QTest::newRow("value-in-the-reason")
            << u"uuid"_s << u"^sql: ERROR:  invalid input syntax for type uuid: \"\\*\\*\\*\"$"_s;
    }
    void secretsStayOutOfTheLog()
    {
        QFETCH(const QString, column);
        QFETCH(const QString, logged);
        QVERIFY(m_session.open());
        run(u"CREATE TABLE kept (token %1)"_s.arg(column));
        QSqlQuery query;
        query.prepare(u"INSERT INTO kept VALUES (?)"_s);
        query.addBindValue(u"s3cret"_s);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(logged));
        QVERIFY(!db::execSecret(query));
        run(u"DROP TABLE kept; CREATE TABLE kept (token text)"_s);
        QSqlQuery good;
        good.prepare(u"INSERT INTO kept VALUES (?)"_s);
        good.addBindValue(u"s3cret"_s);
        QVERIFY(db::execSecret(good));
        QCOMPARE(scalar(u"SELECT token FROM kept"_s), u"s3cret"_s);
    }

    void schemaVersionIsTheHighest()
    {
        QVERIFY(m_session.open());
        QCOMPARE(db::schemaVersion(), 11);
        run(u"INSERT INTO tarn.schema_migrations (version) VALUES (12)"_s);
        QCOMPARE(db::schemaVersion(), 12);
        run(u"DELETE FROM tarn.schema_migrations"_s);
        QCOMPARE(db::schemaVersion(), 0);
    }

    void schemaVersionWithoutTheTable()
    {
        QVERIFY(m_session.open({
            {u"database/name"_s, m_server.createEmptyDatabase()}
        }));
        QCOMPARE(db::schemaVersion(), 0);
    }

    void ident_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("quoted");
        QTest::newRow("plain") << u"account"_s << u"\"account\""_s;
        QTest::newRow("case-is-kept") << u"Account"_s << u"\"Account\""_s;
        QTest::newRow("empty") << u""_s << u"\"\""_s;
        QTest::newRow("one-quote") << u"\""_s << u"\"\"\"\""_s;
        QTest::newRow("quote-inside") << u"a\"b"_s << u"\"a\"\"b\""_s;
        QTest::newRow("nul-inside") << QString::fromLatin1("a\0b", 3) << u"\"ab\""_s;
    }
    void ident()
    {
        QFETCH(const QString, name);
        QFETCH(const QString, quoted);
        QCOMPARE(db::ident(name), quoted);
    }

    void storable_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("stored");
        QTest::newRow("plain") << u"a b"_s << u"a b"_s;
        QTest::newRow("null") << QString() << u""_s;
        QTest::newRow("empty") << u""_s << u""_s;
        QTest::newRow("nuls") << QString::fromLatin1("\0a\0\0b\0", 6) << u"ab"_s;
        QTest::newRow("only-nuls") << QString::fromLatin1("\0\0", 2) << u""_s;
    }
    void storable()
    {
        QFETCH(const QString, text);
        QFETCH(const QString, stored);
        QCOMPARE(db::storable(text), stored);
        QVERIFY(!db::storable(text).isNull());
    }
};

QTEST_GUILESS_MAIN(tst_Db)
#include "tst_Db.moc"
