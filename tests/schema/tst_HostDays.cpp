// What stays of samples and measurements when they are gone: tarn.host_days and tarn.account_days.
#include "Probe.h"
#include "collect/Health.h"
#include "collect/HealthAccounts.h"
#include "support/PostgresServer.h"

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

#include <cmath>
#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

constexpr qint64 kMost = std::numeric_limits<qint64>::max();
constexpr qint64 kLeast = std::numeric_limits<qint64>::min();

} // namespace

class tst_HostDays : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }

    static QString scalar(const QString& statement) { return test::value(session(), statement); }
    static void run(const QString& statement) { test::run(session(), statement); }

    /// A sample of the given moment; @p columns and @p values are lists in SQL.
    static void sample(const QString& at, const QString& columns = u"load1"_s, const QString& values = u"1"_s)
    {
        run(u"INSERT INTO tarn.host_samples (at, %1) VALUES ('%2', %3)"_s.arg(columns, at, values));
    }

    static void traffic(const QString& at, const QString& perSecond)
    {
        sample(at, u"net_rx_bps, net_tx_bps, apache_rps"_s, u"%1, 2 * (%1), (%1) / 10.0"_s.arg(perSecond));
    }

    static QString day(const QString& columns, const QString& day = u"2024-05-05"_s)
    {
        return scalar(u"SELECT concat_ws(' ', %1) FROM tarn.host_days WHERE day = '%2'"_s.arg(columns, day));
    }

    static QString traffic() { return day(u"net_rx_bytes, net_tx_bytes, apache_requests"_s); }

    /// As the collector stores a measurement; nothing for what was not measured.
    static void measure(const QString& user, const QVariant& disk, const QVariant& database)
    {
        QSqlQuery query(session());
        query.prepare(kUsageStorage);
        query.addBindValue(disk);
        query.addBindValue(!disk.isNull());
        query.addBindValue(database);
        query.addBindValue(user);
        QVERIFY(query.exec());
    }

    static QString accountDays()
    {
        return scalar(u"SELECT coalesce(string_agg(concat_ws(' ', username, current_date - day, "
                      "coalesce(disk_used_bytes::text, '-'), coalesce(db_used_bytes::text, '-')), ', ' "
                      "ORDER BY username, day), 'none') FROM tarn.account_days"_s);
    }

    test::PostgresServer m_server;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_server.connect(m_server.createDatabase(), u"session"_s).isOpen());
        run(u"SET TimeZone = 'UTC'"_s);
    }

    void cleanup() { QSqlDatabase::removeDatabase(u"session"_s); }

    // tarn.host_days

    void firstSampleAfterAStart()
    {
        sample(u"2024-05-05 00:00:00Z"_s,
               u"load1, mem_total_kb, mem_avail_kb, disk_total_bytes, disk_avail_bytes"_s,
               u"0.5, 1000, 250, 1000000, 900000"_s);
        QCOMPARE(day(u"samples, load1_avg, load1_max, coalesce(cpu_pct_avg::text, '-'), "
                     "coalesce(cpu_pct_max::text, '-'), mem_used_pct_max, disk_used_pct_last, net_rx_bytes, "
                     "net_tx_bytes, apache_requests, zone"_s),
                 u"1 0.5 0.5 - - 75 10 0 0 0 UTC"_s);
    }

    void meansAreOverWhatWasMeasured()
    {
        const auto both = u"load1, cpu_pct"_s;
        sample(u"2024-05-05 01:00:00Z"_s, both, u"1, NULL"_s);
        sample(u"2024-05-05 01:00:30Z"_s, both, u"NULL, 10"_s);
        sample(u"2024-05-05 01:01:00Z"_s, both, u"2, NULL"_s);
        sample(u"2024-05-05 01:01:30Z"_s, both, u"6, 20"_s);
        QCOMPARE(
            day(u"samples, load1_avg, load1_max, load1_samples, cpu_pct_avg, cpu_pct_max, cpu_pct_samples"_s),
            u"4 3 6 3 15 20 2"_s);
    }

    void meansStayExactOverADay()
    {
        run(u"DO $$ BEGIN FOR n IN 0..2879 LOOP INSERT INTO tarn.host_samples (at, load1, cpu_pct) VALUES "
            "('2024-05-05'::timestamptz + n * interval '30 s', (n * 7919 % 1000) / 100.0, "
            "nullif(n % 10, 0) * 9.7); END LOOP; END $$"_s);
        QCOMPARE(
            scalar(
                u"SELECT (abs(load1_avg - (SELECT avg(load1) FROM tarn.host_samples)) < 1e-12) || ' ' || "
                "(abs(cpu_pct_avg - (SELECT avg(cpu_pct) FROM tarn.host_samples)) < 1e-11) || ' ' || samples "
                "FROM tarn.host_days"_s),
            u"true true 2880"_s);
    }

    void greatestMemoryAndLatestDisk()
    {
        const auto columns = u"mem_total_kb, mem_avail_kb, disk_total_bytes, disk_avail_bytes"_s;
        sample(u"2024-05-05 01:00:00Z"_s, columns, u"1000, 500, 1000, 300"_s);
        sample(u"2024-05-05 01:00:30Z"_s, columns, u"1000, 100, 1000, 500"_s);
        sample(u"2024-05-05 01:01:00Z"_s, columns, u"1000, 800, 1000, 600"_s);
        sample(u"2024-05-05 01:01:30Z"_s, columns, u"0, 0, NULL, NULL"_s);
        QCOMPARE(day(u"mem_used_pct_max, disk_used_pct_last"_s), u"90 40"_s);
    }

    void bytesAreRateTimesTime()
    {
        traffic(u"2024-05-05 10:00:00Z"_s, u"NULL"_s);
        traffic(u"2024-05-05 10:00:30Z"_s, u"100"_s);
        QCOMPARE(traffic(), u"3000 6000 300"_s);
        traffic(u"2024-05-05 10:00:40.5Z"_s, u"10"_s);
        QCOMPARE(traffic(), u"3105 6210 311"_s);
        traffic(u"2024-05-05 10:01:10.5Z"_s, u"NULL"_s); // the collector was started anew
        QCOMPARE(traffic(), u"3105 6210 311"_s);
        traffic(u"2024-05-05 12:01:10.5Z"_s, u"1"_s); // the database was away
        QCOMPARE(traffic(), u"10305 20610 1031"_s);
    }

    void rateWithoutASampleBeforeAddsNothing()
    {
        traffic(u"2024-05-05 10:00:00Z"_s, u"100"_s);
        QCOMPARE(traffic(), u"0 0 0"_s);
    }

    void spanFromTheDayBeforeBelongsToTheSample()
    {
        traffic(u"2024-05-04 23:59:50Z"_s, u"NULL"_s);
        traffic(u"2024-05-05 00:00:20Z"_s, u"10"_s);
        QCOMPARE(traffic(), u"300 600 30"_s);
        QCOMPARE(day(u"net_rx_bytes"_s, u"2024-05-04"_s), u"0"_s);
    }

    void spanThatIsNone_data()
    {
        QTest::addColumn<QString>("at");
        QTest::addColumn<QString>("expected");
        QTest::newRow("same-moment") << u"2024-05-05 10:00:30Z"_s << u"3000 6000 300"_s;
        // since the sample before that moment, wherever in the order of inserts that was
        QTest::newRow("clock-set-back") << u"2024-05-05 10:00:10Z"_s << u"4000 8000 400"_s;
        QTest::newRow("before-all") << u"2024-05-05 09:00:00Z"_s << u"3000 6000 300"_s;
    }
    void spanThatIsNone()
    {
        QFETCH(const QString, at);
        QFETCH(const QString, expected);
        traffic(u"2024-05-05 10:00:00Z"_s, u"NULL"_s);
        traffic(u"2024-05-05 10:00:30Z"_s, u"100"_s);
        traffic(at, u"100"_s);
        QCOMPARE(traffic(), expected);
    }

    void severalSamplesOfOneStatement()
    {
        run(u"INSERT INTO tarn.host_samples (at, net_rx_bps) VALUES ('2024-05-05 10:00:00Z', NULL), "
            "('2024-05-05 10:00:30Z', 100), ('2024-05-05 10:00:30Z', 100), ('2024-05-05 10:01:00Z', 10)"_s);
        QCOMPARE(day(u"samples, net_rx_bytes"_s), u"4 3300"_s);
    }

    void dayIsOneOfTheSession_data()
    {
        QTest::addColumn<QString>("zone");
        QTest::addColumn<QString>("days");
        QTest::newRow("utc") << u"UTC"_s << u"2024-05-05 2 UTC"_s;
        QTest::newRow("east") << u"Europe/Berlin"_s
                              << u"2024-05-05 1 Europe/Berlin, 2024-05-06 1 Europe/Berlin"_s;
        QTest::newRow("west") << u"America/New_York"_s << u"2024-05-05 2 America/New_York"_s;
    }
    void dayIsOneOfTheSession()
    {
        QFETCH(const QString, zone);
        QFETCH(const QString, days);
        run(u"SET TimeZone = '%1'"_s.arg(zone));
        sample(u"2024-05-05 21:59:59Z"_s);
        sample(u"2024-05-05 22:00:00Z"_s);
        QCOMPARE(scalar(u"SELECT string_agg(concat_ws(' ', day, samples, zone), ', ' ORDER BY day) "
                        "FROM tarn.host_days"_s),
                 days);
    }

    void dayStaysWhenSamplesGo()
    {
        sample(u"2024-05-05 10:00:00Z"_s);
        run(kSamplePruning);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.host_samples"_s), u"0"_s);
        QCOMPARE(day(u"samples, load1_avg"_s), u"1 1"_s);
    }

    /// Whatever a sample holds, it is stored: the day is the lesser loss.
    void oddValues_data()
    {
        QTest::addColumn<double>("number");
        QTest::addColumn<qint64>("total");
        QTest::addColumn<qint64>("available");
        constexpr double infinite = std::numeric_limits<double>::infinity();
        QTest::newRow("not-a-number") << std::nan("") << 0LL << 0LL;
        QTest::newRow("infinite") << infinite << kMost << kLeast;
        QTest::newRow("minus-infinite") << -infinite << kLeast << kMost;
        QTest::newRow("greatest") << std::numeric_limits<double>::max() << 1LL << kLeast;
        QTest::newRow("least") << std::numeric_limits<double>::lowest() << -1LL << kMost;
        QTest::newRow("smallest") << std::numeric_limits<double>::denorm_min() << kMost << kMost;
        QTest::newRow("limit") << 1e15 << kMost << 0LL;
        QTest::newRow("small") << 1e-9 << kLeast << kLeast;
        QTest::newRow("below-small") << 0.99e-9 << kLeast << 0LL;
    }
    void oddValues()
    {
        QFETCH(const double, number);
        QFETCH(const qint64, total);
        QFETCH(const qint64, available);
        for (const double before : {0.0, 1e15}) {
            run(u"TRUNCATE tarn.host_days"_s);
            for (const double value : {before, number, before, number, number}) {
                QSqlQuery query(session());
                query.prepare(
                    u"INSERT INTO tarn.host_samples (at, load1, cpu_pct, net_rx_bps, net_tx_bps, apache_rps, "
                    "mem_total_kb, mem_avail_kb, disk_total_bytes, disk_avail_bytes) "
                    "VALUES (clock_timestamp(), ?, ?, ?, ?, ?, ?, ?, ?, ?)"_s);
                for (int n = 0; n < 5; ++n)
                    query.addBindValue(value);
                for (const qint64 size : {total, available, total, available})
                    query.addBindValue(size);
                QVERIFY2(query.exec(), qPrintable(query.lastError().text()));
            }
            QCOMPARE(scalar(u"SELECT sum(samples) FROM tarn.host_days"_s), u"5"_s);
        }
    }

    void momentsWithoutAnEnd()
    {
        for (const QString& at : {u"-infinity"_s, u"4713-01-01 BC"_s, u"2024-05-05 10:00:00Z"_s,
                                  u"294276-12-31 23:59:59Z"_s, u"infinity"_s, u"infinity"_s})
            traffic(at, u"4e14"_s);
        QCOMPARE(scalar(u"SELECT sum(samples) FROM tarn.host_days"_s), u"6"_s);
        QCOMPARE(traffic(), u"%1 %1 %1"_s.arg(kMost));
    }

    void notANumberSpoilsNoMean()
    {
        for (const QString& value : {u"1"_s, u"'NaN'"_s, u"'Infinity'"_s, u"-1"_s, u"1.1e15"_s, u"3"_s})
            sample(u"2024-05-05 10:00:00Z"_s, u"load1, cpu_pct"_s, value + u", "_s + value);
        QCOMPARE(day(u"samples, load1_avg, load1_max, cpu_pct_avg, cpu_pct_max, load1_samples"_s),
                 u"6 2 3 2 3 2"_s);
    }

    // tarn.account_days

    void lastMeasurementOfTheDayStands()
    {
        run(u"INSERT INTO tarn.accounts (username, domain) VALUES ('alice', 'a.example'), ('bob', 'b.example')"_s);
        QCOMPARE(accountDays(), u"none"_s);
        measure(u"alice"_s, 100, 10);
        QCOMPARE(accountDays(), u"alice 0 100 10"_s);
        measure(u"alice"_s, 90, 20);
        measure(u"bob"_s, kMost, 0);
        QCOMPARE(accountDays(), u"alice 0 90 20, bob 0 9223372036854775807 0"_s);
    }

    void whatWasNotMeasuredIsNoneOfToday()
    {
        run(u"INSERT INTO tarn.accounts (username, domain, disk_used_bytes, disk_checked_at) "
            "VALUES ('alice', 'a.example', 100, now() - interval '1 day')"_s);
        measure(u"alice"_s, QVariant(), QVariant());
        QCOMPARE(accountDays(), u"none"_s);
        measure(u"alice"_s, QVariant(), 7);
        QCOMPARE(accountDays(), u"alice 0 - 7"_s);
        measure(u"alice"_s, 100, 8); // the same size, measured anew
        QCOMPARE(accountDays(), u"alice 0 100 8"_s);
        measure(u"alice"_s, QVariant(), 9);
        QCOMPARE(accountDays(), u"alice 0 100 9"_s);
        measure(u"alice"_s, QVariant(), QVariant()); // the database was dropped
        QCOMPARE(accountDays(), u"alice 0 100 -"_s);
    }

    void daysOutliveTheAccount()
    {
        run(u"INSERT INTO tarn.accounts (username, domain) VALUES ('alice', 'a.example')"_s);
        measure(u"alice"_s, 100, QVariant());
        run(u"UPDATE tarn.account_days SET day = day - 1"_s);
        measure(u"alice"_s, 200, QVariant());
        run(u"DELETE FROM tarn.accounts"_s);
        QCOMPARE(accountDays(), u"alice 1 100 -, alice 0 200 -"_s);
        // The name is given to somebody else on the same day.
        run(u"INSERT INTO tarn.accounts (username, domain) VALUES ('alice', 'other.example')"_s);
        measure(u"alice"_s, 5, QVariant());
        QCOMPARE(accountDays(), u"alice 1 100 -, alice 0 5 -"_s);
    }

    void limitsAreNoMeasurement()
    {
        run(u"INSERT INTO tarn.accounts (username, domain, disk_used_bytes, db_used_bytes) VALUES ('alice', 'a.example', 5, 6)"_s);
        run(u"UPDATE tarn.accounts SET disk_limit_mb = 7, db_readonly = true"_s);
        QCOMPARE(accountDays(), u"none"_s);
    }

    void longestName()
    {
        const QString name(63, u'a');
        run(u"INSERT INTO tarn.accounts (username, domain) VALUES ('%1', 'a.example')"_s.arg(name));
        measure(name, 1, 2);
        QCOMPARE(accountDays(), name + u" 0 1 2"_s);
    }
};

QTEST_GUILESS_MAIN(tst_HostDays)
#include "tst_HostDays.moc"
