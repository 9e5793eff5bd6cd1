// What schema/upgrades/0001-figures.sql makes of the tables beside the figures of the sites.
#include "Probe.h"
#include "support/PostgresServer.h"

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

/// Columns, constraints and comments of the tables that it touches.
const auto kLayout =
    u"SELECT string_agg(line, E'\\n' ORDER BY line) FROM (SELECT concat_ws(' ', relname, attnum, attname, "
    "atttypid::regtype, attnotnull, col_description(c.oid, attnum), obj_description(c.oid, 'pg_class')) AS "
    "line "
    "FROM pg_class c JOIN pg_attribute ON attrelid = c.oid AND attnum > 0 WHERE relname = ANY (t.tables) "
    "AND relnamespace = 'tarn'::regnamespace "
    "UNION ALL SELECT concat_ws(' ', conrelid::regclass, conname, convalidated, pg_get_constraintdef(oid)) "
    "FROM pg_constraint WHERE connamespace = 'tarn'::regnamespace "
    "AND conrelid::regclass::text = ANY (SELECT 'tarn.' || unnest(t.tables))) lines"_s;

const auto kTables =
    u"(SELECT ARRAY['settings', 'sites', 'log_sources', 'accounts', 'host_days', 'account_days'] AS tables) t"_s;

} // namespace

class tst_DaysUpgrade : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }

    static QString scalar(const QString& statement) { return test::value(session(), statement); }
    static void run(const QString& statement) { test::run(session(), statement); }

    QString load(const QString& file) const
    {
        return m_server.runFile(session().databaseName(), test::schemaFile(file));
    }

    static QString layout() { return scalar(u"SELECT (%1) FROM %2"_s.arg(kLayout, kTables)); }

    test::PostgresServer m_server;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_server.connect(m_server.createEmptyDatabase(), u"session"_s).isOpen());
        QCOMPARE(load(u"../tests/data/schema/version-11-first.sql"_s), QString());
    }

    void cleanup() { QSqlDatabase::removeDatabase(u"session"_s); }

    void layoutIsThatOfAFreshDatabase()
    {
        QCOMPARE(load(u"upgrades/0001-figures.sql"_s), QString());
        const QString upgraded = layout();
        QVERIFY(m_server.connect(m_server.createDatabase(), u"session"_s).isOpen());
        QCOMPARE(upgraded, layout());
        QVERIFY(upgraded.contains(u"sites_host_is_a_lower_case_name"_s));
    }

    void standingRowsThatAreRefusedAreNamed()
    {
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'Example.org'), (2, 'example.net')"_s);
        run(u"INSERT INTO tarn.log_sources (site_id, path) VALUES (2, 'access.log')"_s);
        run(u"INSERT INTO tarn.settings VALUES ('raw_hit_days', '90 days')"_s);
        const QString errors = load(u"upgrades/0001-figures.sql"_s);
        for (const QString& line : {u"tarn.sites: Example.org"_s, u"tarn.log_sources: access.log"_s,
                                    u"tarn.settings: raw_hit_days = 90 days"_s})
            QVERIFY2(errors.contains(line), qPrintable(errors));
        QVERIFY(!errors.contains(u"example.net"_s));
        QCOMPARE(scalar(u"SELECT to_regclass('tarn.host_days') IS NULL"_s), u"true"_s);
    }

    void secondRunIsRefused()
    {
        QCOMPARE(load(u"upgrades/0001-figures.sql"_s), QString());
        QVERIFY(load(u"upgrades/0001-figures.sql"_s).contains(u"has been done"_s));
    }

    /// The days that it makes of standing samples are those that the inserts of the same samples make.
    void daysAreThoseOfTheSamples()
    {
        const auto figures =
            u"SELECT string_agg(concat_ws(' ', day, samples, round(load1_avg::numeric, 9), load1_max, "
            "round(cpu_pct_avg::numeric, 9), cpu_pct_max, mem_used_pct_max, disk_used_pct_last, "
            "net_rx_bytes, "
            "net_tx_bytes, apache_requests, zone, load1_samples, cpu_pct_samples), E'\\n' ORDER BY day) "
            "FROM tarn.host_days"_s;
        const auto samples =
            u"DO $$ BEGIN FOR n IN 0..600 LOOP INSERT INTO tarn.host_samples (at, load1, cpu_pct, "
            u"mem_total_kb, "
            "mem_avail_kb, disk_total_bytes, disk_avail_bytes, net_rx_bps, net_tx_bps, apache_rps) "
            "VALUES (timestamptz '2024-05-01 00:00:07Z' + n * interval '331 s', nullif(n % 7, 0) / 4.0, "
            "nullif(n % 5, 0) * 9.3, 1000, n % 900, 1000, nullif(900 - n / 3, 700), nullif(n % 11, 0) * "
            "1.37, "
            "CASE n % 3 WHEN 0 THEN 'NaN' ELSE n * 7.1 END, n % 9 / 7.0); END LOOP; END $$"_s;
        run(samples);
        run(u"INSERT INTO tarn.accounts (username, domain, disk_used_bytes, disk_checked_at) "
            "VALUES ('alice', 'a.example', 5, '2024-05-05 12:00Z'), ('bob', 'b.example', NULL, NULL)"_s);
        QCOMPARE(load(u"upgrades/0001-figures.sql"_s), QString());
        const QString upgraded = scalar(figures);
        QCOMPARE(scalar(u"SELECT string_agg(concat_ws(' ', username, day, disk_used_bytes), ',') "
                        "FROM tarn.account_days"_s),
                 u"alice 2024-05-05 5"_s);

        QVERIFY(m_server.connect(m_server.createDatabase(), u"session"_s).isOpen());
        run(samples);
        QCOMPARE(upgraded, scalar(figures));
        QCOMPARE(upgraded.count(u'\n'), 2);
    }
};

QTEST_GUILESS_MAIN(tst_DaysUpgrade)
#include "tst_DaysUpgrade.moc"
