// The running binary and the hosts that it fetches from: Google and DB-IP, under their own names.

#include "support/Collector.h"
#include "support/FakeHosts.h"
#include "support/GzipProgram.h"
#include "support/PostgresServer.h"

#include <QDate>
#include <QFile>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::FakeHosts;

namespace {

/// As many ranges as a country file must have lines, compressed as DB-IP's.
QByteArray countryFile()
{
    QByteArray lines;
    for (int i = 0; i < 1000; ++i) {
        const QByteArray net = "10." + QByteArray::number(i / 250) + '.' + QByteArray::number(i % 250) + '.';
        lines += net + "0," + net + "255,DE\n";
    }
    return test::gzip(lines);
}

/// Google, for an account with one property and one day of figures.
FakeHosts::Reply google(const FakeHosts::Request& request)
{
    if (request.target == "/token")
        return {.body = "{\"access_token\": \"ya29.access\"}"};
    if (request.target == "/webmasters/v3/sites") {
        return {.body = "{\"siteEntry\": [{\"siteUrl\": \"sc-domain:example.org\", "
                        "\"permissionLevel\": \"siteOwner\"}]}"};
    }
    if (request.body.contains("\"query\"")) {
        return {.body =
                    "{\"rows\": [{\"keys\": [\"2024-10-10\", \"red shoes\", \"https://example.org/shoes\", "
                    "\"deu\", \"MOBILE\"], \"clicks\": 1, \"impressions\": 20, \"position\": 2.5}]}"};
    }
    return {.body = "{\"rows\": [{\"keys\": [\"2024-10-10\"], \"clicks\": 3, \"impressions\": 120, "
                    "\"position\": 7.5}]}"};
}

} // namespace

class tst_Fetching : public QObject
{
    Q_OBJECT

private:
    QString value(const QString& statement) { return test::value(m_database, statement); }
    void run(const QString& statement) { test::run(m_database, statement); }

    test::PostgresServer m_server;
    FakeHosts m_hosts;
    QSqlDatabase m_database;
    std::unique_ptr<test::Collector> m_collector;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        QVERIFY(
            m_hosts.start({u"oauth2.googleapis.com"_s, u"www.googleapis.com"_s, u"download.db-ip.com"_s}));
    }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_collector = std::make_unique<test::Collector>();
        m_database = m_server.connect(m_collector->useNewDatabase(m_server), u"test"_s);
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('google', 'kept')"_s);
        m_collector->settings[u"google/client_id"_s] = u"id"_s;
        m_collector->settings[u"google/client_secret"_s] = u"hidden"_s;
        m_collector->trust(m_hosts);
        m_hosts.answer(google);
    }

    void cleanup()
    {
        m_collector.reset();
        QCOMPARE(m_hosts.complaints(), QStringList());
        m_hosts.reset();
    }

    void figuresAtStartAndOnDemand()
    {
        const QString stored =
            u"collect: google: example.org: 1 days (2024-10-10 to 2024-10-10), 1 detail rows"_s;
        m_collector->start();
        QVERIFY(m_collector->waitForLog(stored));
        QCOMPARE(m_hosts.requests().size(), 4);
        QCOMPARE(value(u"SELECT concat_ws(' ', query, page, country, device) FROM tarn.search_rows"_s),
                 u"red shoes /shoes DE mobile"_s);
        run(u"DELETE FROM tarn.search_rows"_s);
        run(u"NOTIFY tarn_sync"_s);
        QVERIFY(m_collector->waitForLog(stored, 2));
        QCOMPARE(value(u"SELECT count(*) FROM tarn.search_rows"_s), u"1"_s);
        const QString log = m_collector->log().join(u'\n');
        QVERIFY2(!log.contains(u"hidden"_s) && !log.contains(u"kept"_s) && !log.contains(u"ya29"_s),
                 qPrintable(log));
    }

    void logsAreFollowedWhileGoogleSaysNothing()
    {
        QTemporaryDir folder;
        const QString path = folder.filePath(u"access.log"_s);
        run(u"INSERT INTO tarn.log_sources (path, site_id) VALUES ('%1', 1)"_s.arg(path));
        m_hosts.answer([](const FakeHosts::Request&) {
            return FakeHosts::Reply{.delivery = FakeHosts::Delivery::Stalled};
        });
        m_collector->start();
        QTRY_COMPARE_WITH_TIMEOUT(m_hosts.requests().size(), 1, 20'000);
        QFile log(path);
        QVERIFY(log.open(QIODevice::WriteOnly));
        log.write("192.0.2.1 - - [10/Oct/2024:13:55:36 +0000] \"GET / HTTP/1.1\" 200 5 \"-\" \"-\" 99\n");
        log.close();
        QTRY_COMPARE_WITH_TIMEOUT(value(u"SELECT count(*) FROM tarn.hits"_s), u"1"_s, 20'000);
        QCOMPARE(m_collector->log().filter(u"google"_s), QStringList());
    }

    void countriesOfAMonthAreFetchedOnce()
    {
        run(u"UPDATE tarn.settings SET value = '2024-01' WHERE key = 'geoip_month'"_s);
        run(u"DELETE FROM tarn.engine_accounts"_s);
        const QByteArray file = countryFile();
        m_hosts.answer([&file](const FakeHosts::Request&) { return FakeHosts::Reply{.body = file}; });
        m_collector->start();
        QVERIFY(m_collector->waitForLog(
            u"collect: geoip: loaded 1000 country ranges (IP data by DB-IP, CC BY 4.0)"_s));
        QVERIFY(m_collector->waitForLog(u"collect: geoip: hits get countries from the next start on"_s));
        QCOMPARE(m_hosts.requests().size(), 1);
        QCOMPARE(m_hosts.requests().first().text().split('\n').first(),
                 QDate::currentDate()
                     .toString(u"'GET https://download.db-ip.com/free/dbip-country-lite-'yyyy-MM'.csv.gz'"_s)
                     .toLatin1());
        QCOMPARE(value(u"SELECT count(*) FROM tarn.geo_country"_s), u"1000"_s);

        m_collector->terminate();
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"collect: google: not connected"_s));
        // The month is asked for right behind that, long before the log timer's first turn.
        QTRY_COMPARE_WITH_TIMEOUT(value(u"SELECT count(*) FROM pg_stat_activity WHERE application_name = "
                                        u"'tarn-collect' AND datname = "
                                        "current_database() AND query LIKE '%log_sources%' "
                                        "AND query_start > backend_start + interval '1.5 s'"_s),
                                  u"1"_s, 20'000);
        QCOMPARE(m_hosts.requests().size(), 1);
        QCOMPARE(m_collector->log().filter(u"geoip"_s), QStringList());
    }
};

QTEST_GUILESS_MAIN(tst_Fetching)
#include "tst_Fetching.moc"
