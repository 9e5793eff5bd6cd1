#include "analytics/GoogleFixture.h"
#include "common/Db.h"

#include <QSqlDatabase>
#include <QSqlDriver>
#include <QTimer>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// The database session during the waits for Google: used by others, lost, opened again.
class tst_GoogleSessions : public GoogleFixture
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void cleanupTestCase() { endProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void aReconnectDuringEachWaitDoesNoHarm()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        haveSite(2, u"b.example.org"_s, u"sc-domain:b.example.org"_s);
        int reconnects = 0;
        m_hosts.answer([&](const FakeHosts::Request& request) {
            reconnects += db::ensure(true) ? 1 : 0;
            if (request.target == "/token")
                return granted();
            if (request.target.endsWith("/sites"))
                return json("{'siteEntry':[{'siteUrl':'https://a.example.org/'}]}");
            return request.body.contains("device") ? page(1) : totals();
        });
        const auto done = u"1 days (2024-10-10 to 2024-10-10), 1 detail rows"_s;
        QCOMPARE(sync(), u"a.example.org: "_s + done + u"; b.example.org: "_s + done);
        QCOMPARE(reconnects, 6);
        QCOMPARE(rowCount(), u"2"_s);
        analytics::google::disconnect();
        QCOMPARE(reconnects, 7);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.engine_accounts"_s), u"0"_s);
    }

    void noTransactionIsOpenDuringAWait()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        int waits = 0;
        m_hosts.answer([&](const FakeHosts::Request& request) {
            // Nor does a prepared statement live on.
            waits += scalar(u"SELECT now() = statement_timestamp() AND NOT EXISTS (SELECT FROM "
                            "pg_prepared_statements)"_s)
                             == u"true"_s
                         ? 1
                         : 0;
            if (request.target == "/token")
                return granted();
            return request.body.contains("device") ? page(1) : totals();
        });
        sync();
        analytics::google::disconnect();
        QCOMPARE(waits, 5);
    }

    void aSecondSyncDuringTheFirst()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        QString nested;
        bool started = false;
        m_hosts.answer([&](const FakeHosts::Request& request) {
            if (request.target == "/token")
                return granted();
            if (request.target.endsWith("/sites"))
                return noProperties();
            if (!started)
                QTimer::singleShot(0, this, [&] { nested = sync(); });
            started = true;
            return request.body.contains("device") ? page(3) : totals();
        });
        const auto done = u"a.example.org: 1 days (2024-10-10 to 2024-10-10), 3 detail rows"_s;
        QCOMPARE(sync(), done);
        QTRY_COMPARE(nested, done);
        QCOMPARE(rowCount(), u"3"_s);
    }

    void lostSession()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.answer([this](const FakeHosts::Request&) {
            ProductSession::endBackend(m_session.other());
            return page(1);
        });
        messagesToList();
        const QString result = analytics::google::sync(kClient);
        qInstallMessageHandler(collectMessages);
        QCOMPARE(result, u"a.example.org: database error while storing"_s);
        QVERIFY2(g_messages.size() <= 8, qPrintable(g_messages.join(u" | "_s)));
        QVERIFY(db::ensure(false));
    }

    /// One that the event loop notices, as the collector's is, which listens.
    void sessionLostDuringAWaitIsOpenedAgain_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::newRow("token") << QByteArray("/token");
        QTest::newRow("properties") << QByteArray("/sites");
        QTest::newRow("figures") << QByteArray("/query");
    }
    void sessionLostDuringAWaitIsOpenedAgain()
    {
        QFETCH(const QByteArray, target);
        bool killed = false;
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        QVERIFY(db::session().driver()->subscribeToNotification(u"test"_s));
        m_hosts.answer([&](const FakeHosts::Request& request) {
            if (request.target.endsWith(target) && !std::exchange(killed, true))
                ProductSession::lose(m_session.other());
            if (request.target == "/token")
                return granted();
            return request.target.endsWith("/sites") ? noProperties()
                   : request.body.contains("device") ? page(1)
                                                     : totals();
        });
        messagesToList();
        const QString result = sync();
        qInstallMessageHandler(collectMessages);
        QCOMPARE(result, u"a.example.org: 1 days (2024-10-10 to 2024-10-10), 1 detail rows"_s);
        QCOMPARE(g_messages.count(u"database: reconnected"_s), 1);
    }

    void codeIsNotSpentForALostSession()
    {
        QVERIFY(db::session().driver()->subscribeToNotification(u"test"_s));
        m_hosts.answer([&](const FakeHosts::Request& request) {
            if (!request.target.endsWith("/token"))
                return noProperties();
            ProductSession::lose(m_session.other());
            return json("{'refresh_token':'" + kRefresh.toUtf8() + "','access_token':'x'}");
        });
        messagesToList();
        const QString result = connectNow();
        qInstallMessageHandler(collectMessages);
        QCOMPARE(result, QString());
        QCOMPARE(account(u"refresh_token"_s), kRefresh);
    }

    void lostDatabaseIsNamed_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QString>("result");
        QTest::newRow("token") << QByteArray("/token") << u"the database was lost"_s;
        QTest::newRow("properties") << QByteArray("/sites") << u"the database was lost"_s;
        QTest::newRow("figures")
            << QByteArray("a.example.org/searchAnalytics/query")
            << u"a.example.org: the database was lost; b.example.org: the database was lost"_s;
    }
    void lostDatabaseIsNamed()
    {
        QFETCH(const QByteArray, target);
        QFETCH(const QString, result);
        haveConnection();
        for (int id = 1; id < 4; ++id) {
            const QString host = QChar(u'a' + id - 1) + u".example.org"_s;
            haveSite(id, host, u"sc-domain:"_s + host);
        }
        QVERIFY(db::session().driver()->subscribeToNotification(u"test"_s));
        QSqlDatabase other = m_session.other();
        m_hosts.answer([&](const FakeHosts::Request& request) {
            if (request.target.endsWith(target) && db::session().isOpen()) {
                run(other,
                    u"UPDATE pg_database SET datallowconn = false WHERE datname = current_database()"_s);
                ProductSession::lose(other);
            }
            if (request.target == "/token")
                return granted();
            return request.target.endsWith("/sites") ? noProperties()
                   : request.body.contains("device") ? page(1)
                                                     : totals();
        });
        messagesToList();
        const QString returned = analytics::google::sync(kClient);
        run(other, u"UPDATE pg_database SET datallowconn = true WHERE datname = current_database()"_s);
        qInstallMessageHandler(collectMessages);
        QCOMPARE(returned, result);
        QVERIFY2(g_messages.size() <= 6, qPrintable(g_messages.join(u" | "_s)));
        QVERIFY(db::ensure(false));
    }
};

QTEST_GUILESS_MAIN(tst_GoogleSessions)
#include "tst_GoogleSessions.moc"
