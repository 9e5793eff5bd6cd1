// The running binary's daily work: at midnight, after a restart, and when a part of it fails. Midnight is
// where the test's time zone puts it.

#include "support/Collector.h"
#include "support/LocalTime.h"
#include "support/PostgresServer.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QTest>

#include <memory>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

/// Between two passes, as the collector has it.
constexpr int kPassMs = 30'000;
constexpr int kSlackMs = 20'000;

/// A collector with a database of its own.
struct Host
{
    explicit Host(test::PostgresServer& server, const QString& name)
        : database(server.connect(collector.useNewDatabase(server), name))
    {
        // What is rolled up, and when, by a function that does nothing else.
        test::run(database,
                  u"CREATE TABLE public.passes (id serial, site int, day date, seconds double precision "
                  "DEFAULT extract(epoch FROM clock_timestamp()))"_s);
        test::run(database,
                  u"CREATE OR REPLACE FUNCTION tarn.rollup_day(site_id integer, day date) RETURNS void "
                  "LANGUAGE sql AS 'INSERT INTO public.passes (site, day) VALUES ($1, $2)'"_s);
    }

    QString value(const QString& statement) const { return test::value(database, statement); }
    void run(const QString& statement) const { test::run(database, statement); }

    /// The days of @p site as they were rolled up, without the order within a pass; "2024-10-10".
    QStringList days(int site = 1) const
    {
        const QString all =
            value(u"SELECT string_agg(day::text, ' ' ORDER BY round(seconds / 10), day) FROM public.passes "
                  "WHERE site = %1"_s.arg(site));
        return all.split(u' ');
    }

    test::Collector collector;
    QSqlDatabase database;
};

} // namespace

class tst_Maintenance : public QObject
{
    Q_OBJECT

private:
    /// A host with two sites, a retention, and a connection to Google that cannot be reached.
    std::unique_ptr<Host> newHost()
    {
        auto host = std::make_unique<Host>(m_server, u"test_%1"_s.arg(++m_hosts));
        host->run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org'), (2, 'example.net')"_s);
        host->run(u"INSERT INTO tarn.settings VALUES ('raw_hit_days', '400')"_s);
        host->run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('google', 'kept')"_s);
        host->collector.settings[u"google/client_id"_s] = u"id"_s;
        host->collector.settings[u"google/client_secret"_s] = u"hidden"_s;
        return host;
    }

    test::PostgresServer m_server;
    int m_hosts = 0;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void midnight()
    {
        const auto before = newHost();
        before->collector.environment[u"TZ"_s] = test::zoneWhereItIs(QTime(23, 59, 45));
        const auto after = newHost();
        after->collector.environment[u"TZ"_s] = test::zoneWhereItIs(QTime(0, 0, 10));
        before->collector.start();
        after->collector.start();

        // The second pass of both: site 2 is the last that is rolled up.
        const auto passed = [](const Host& host, qsizetype passes) {
            return QTest::qWaitFor([&] { return host.days(2).size() >= passes; }, kPassMs + kSlackMs);
        };
        QVERIFY(passed(*before, 4));
        QVERIFY(passed(*after, 3));
        const QString removed = u"collect: removed 0 raw hits older than 400 days"_s;
        QVERIFY(before->collector.waitForLog(removed, 2));
        QVERIFY(before->collector.waitForLog(u"collect: google: "_s, 2));

        // Started before midnight: both passes are the first of a day.
        const QDate first = QDate::fromString(before->days().first(), Qt::ISODate);
        const auto text = [](QDate day) { return day.toString(Qt::ISODate); };
        QCOMPARE(before->days(), QStringList({text(first), text(first.addDays(1)), text(first.addDays(1)),
                                              text(first.addDays(2))}));
        QCOMPARE(before->days(2), before->days(1));

        // Started after midnight: the second pass is a light one.
        const QDate yesterday = QDate::fromString(after->days().first(), Qt::ISODate);
        QCOMPARE(after->days(),
                 QStringList({text(yesterday), text(yesterday.addDays(1)), text(yesterday.addDays(1))}));
        QCOMPARE(after->collector.log().filter(removed).size(), 1);
        // What has failed is left alone until the next day.
        QCOMPARE(after->collector.log().filter(u"collect: google: "_s).size(), 1);
    }

    void dailyPartInOrder()
    {
        const auto host = newHost();
        host->run(u"DELETE FROM tarn.settings WHERE key = 'geoip_month'"_s);
        host->collector.start();
        QVERIFY(host->collector.waitForLog(u"collect: geoip: download failed: "_s));
        const QStringList log = host->collector.log();
        QVERIFY2(log.size() == 4, qPrintable(log.join(u"\n"_s)));
        QCOMPARE(log.at(0), u"collect: removed 0 raw hits older than 400 days"_s);
        QVERIFY2(QRegularExpression(
                     u"^collect: google: Google refused the stored sign-in \\(.+\\)\\. Connect again\\.$"_s)
                     .match(log.at(1))
                     .hasMatch(),
                 qPrintable(log.at(1)));
        QCOMPARE(log.at(2), QDate::currentDate().toString(
                                u"'collect: loading countries from "
                                "https://download.db-ip.com/free/dbip-country-lite-'yyyy-MM'.csv.gz'"_s));
        QVERIFY2(log.at(3).startsWith(u"collect: geoip: download failed: "_s), qPrintable(log.at(3)));
        QCOMPARE(host->value(u"SELECT 'collect: google: ' || last_result FROM tarn.engine_accounts"_s),
                 log.at(1));
        QVERIFY(!log.join(u'\n').contains(u"hidden"_s) && !log.join(u'\n').contains(u"kept"_s));
    }

    void everyStartDoesTheDailyPart()
    {
        const auto host = newHost();
        for (int start = 0; start < 2; ++start) {
            host->collector.start();
            QVERIFY(host->collector.waitForLog(u"collect: google: "_s));
            QCOMPARE(host->collector.log().filter(u"collect: removed "_s).size(), 1);
            host->collector.terminate();
        }
        QCOMPARE(host->days().size(), 4);
    }

    void noSitesIsNoReasonToSkipTheRest()
    {
        const auto host = newHost();
        host->run(u"DELETE FROM tarn.sites"_s);
        host->collector.start();
        QVERIFY(host->collector.waitForLog(u"collect: google: "_s));
        QCOMPARE(host->collector.log().filter(u"collect: removed "_s).size(), 1);
        QCOMPARE(host->value(u"SELECT count(*) FROM public.passes"_s), u"0"_s);
    }

    void aRetentionThatFailsIsSaidAndTheRestGoesOn()
    {
        const auto host = newHost();
        host->run(u"CREATE FUNCTION public.refuse() RETURNS trigger LANGUAGE plpgsql AS "
                  "'BEGIN RAISE ''not today''; END'"_s);
        host->run(u"CREATE TRIGGER refuse BEFORE DELETE ON tarn.hits FOR EACH STATEMENT "
                  "EXECUTE FUNCTION public.refuse()"_s);
        host->collector.start();
        QVERIFY(host->collector.waitForLog(u"collect: google: "_s));
        const QStringList log = host->collector.log();
        const qsizetype refused = log.indexOf(QRegularExpression(u"^sql: ERROR:  not today.*"_s));
        QVERIFY2(refused >= 0, qPrintable(log.join(u'\n')));
        const QStringList rest = log.mid(refused).filter(u"collect: "_s);
        QCOMPARE(rest.size(), 2);
        QVERIFY2(QRegularExpression(u"^collect: removed -?\\d+ raw hits older than 400 days$"_s)
                     .match(rest.at(0))
                     .hasMatch(),
                 qPrintable(rest.at(0)));
    }

    void aNotificationSynchronisesAtOnce_data()
    {
        QTest::addColumn<QString>("secret");
        QTest::addColumn<QString>("refreshToken");
        QTest::addColumn<QString>("result"); // empty: not a word
        QTest::newRow("no-secret") << QString() << u"kept"_s << QString();
        QTest::newRow("not-connected") << u"hidden"_s << QString() << u"not connected"_s;
        QTest::newRow("connected") << u"hidden"_s << u"kept"_s << u"Google refused the stored sign-in"_s;
    }
    void aNotificationSynchronisesAtOnce()
    {
        QFETCH(const QString, secret);
        QFETCH(const QString, refreshToken);
        QFETCH(const QString, result);
        const auto host = newHost();
        host->collector.settings[u"google/client_secret"_s] = secret;
        host->run(u"UPDATE tarn.engine_accounts SET refresh_token = '%1'"_s.arg(refreshToken));
        host->collector.start();
        // A request while the daily one still waits for its turn would be one with it.
        QVERIFY(host->collector.waitForLog(result.isEmpty() ? u"collect: removed "_s
                                                            : u"collect: google: "_s + result));
        host->run(u"NOTIFY tarn_sync"_s);
        // Each is served in its order: once this line is stored, so was the notification.
        if (result.isEmpty()) {
            QTRY_COMPARE_WITH_TIMEOUT(
                host->value(u"SELECT query_start > now() - interval '2 s' FROM pg_stat_activity WHERE "
                            "application_name = 'tarn-collect' AND datname = current_database()"_s),
                u"true"_s, kSlackMs);
            QVERIFY(host->collector.isRunning());
            QCOMPARE(host->collector.log().filter(u"google"_s), QStringList());
            return;
        }
        QVERIFY(host->collector.waitForLog(u"collect: google: "_s + result, 2));
        host->run(u"NOTIFY tarn_sync, 'with a payload'"_s);
        QVERIFY(host->collector.waitForLog(u"collect: google: "_s + result, 3));
    }

    void aNotificationIsTakenAfterARestartOfTheServer()
    {
        const auto host = newHost();
        const QString name = host->database.databaseName();
        host->collector.start();
        QVERIFY(host->collector.waitForLog(u"collect: google: "_s));
        m_server.stop();
        QVERIFY(m_server.restart());
        QVERIFY(host->collector.waitForLog(u"database: reconnected"_s));
        test::run(m_server.connect(name, u"test_again"_s), u"NOTIFY tarn_sync"_s);
        QVERIFY(host->collector.waitForLog(u"collect: google: "_s, 2));
    }
};

QTEST_GUILESS_MAIN(tst_Maintenance)
#include "tst_Maintenance.moc"
