// The view by which other programs watch the collector, and the statements that its document offers them.
#include "Probe.h"
#include "support/PostgresServer.h"

#include <QFile>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

class tst_CollectorState : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }
    static void run(const QString& statement) { test::run(session(), statement); }

    /// Columns of all rows of the view as one text.
    static QString state(const QString& columns)
    {
        return test::value(session(), u"SELECT string_agg(concat_ws(' ', %1), ', ') FROM "
                                      "tarn.collector_state"_s.arg(columns));
    }

    /// A role that may read the view and nothing else.
    QSqlDatabase watcher() const
    {
        run(u"DO $$ BEGIN CREATE ROLE watcher LOGIN; EXCEPTION WHEN duplicate_object THEN NULL; END $$"_s);
        run(u"GRANT USAGE ON SCHEMA tarn TO watcher"_s);
        run(u"GRANT SELECT ON tarn.collector_state TO watcher"_s);
        return m_server.connect(session().databaseName(), u"other"_s, u"watcher"_s);
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

    void cleanup()
    {
        QSqlDatabase::removeDatabase(u"other"_s);
        QSqlDatabase::removeDatabase(u"session"_s);
    }

    void aNewDatabaseIsOneRowOfNothing()
    {
        QCOMPARE(test::value(session(), u"SELECT string_agg(s::text, ' ') FROM tarn.collector_state s"_s),
                 u"(,,,,0,0,,,,,0)"_s);
    }

    void whatTheCollectorDoesIsOneRow()
    {
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org'), (2, 'example.net')"_s);
        run(u"INSERT INTO tarn.log_sources (site_id, path, inode, read_offset, updated_at) VALUES "
            "(1, '/a.log', 7, 100, '2024-05-07 12:00+00'), (2, '/b.log', 8, 4096, '2024-05-06 12:00+00')"_s);
        run(u"INSERT INTO tarn.host_samples (at) VALUES ('2024-05-07 12:00+00'), ('2024-05-07 12:00:30+00')"_s);
        run(u"INSERT INTO tarn.rollup_due VALUES (1, '2024-05-07'), (2, '2024-05-07'), (2, '2024-05-04')"_s);
        run(u"INSERT INTO tarn.engine_accounts (engine, last_sync_at, last_result) VALUES "
            "('bing', '2024-05-07 05:00+00', 'not this'), "
            "('google', '2024-05-07 04:00+00', 'example.org: no new data')"_s);
        run(u"INSERT INTO tarn.settings VALUES ('geoip_month', '2024-05'), ('raw_hit_days', '90')"_s);
        run(u"INSERT INTO tarn.alerts (kind, subject, message, closed_at) VALUES "
            "('disk', '/', 'Disk / is 96% full', NULL), ('load', 'CPU', 'Load 9.0 on 2 CPUs', now()), "
            "('service', 'apache2', 'Service apache2 is not running (dead)', NULL)"_s);
        QCOMPARE(state(u"last_sample_at"_s), u"2024-05-07 12:00:30+00"_s);
        QCOMPARE(state(u"oldest_log, oldest_log_since, oldest_log_read_bytes, logs_never_read"_s),
                 u"/b.log 2024-05-06 12:00:00+00 4096 0"_s);
        QCOMPARE(state(u"days_waiting, oldest_day_waiting"_s), u"3 2024-05-04"_s);
        QCOMPARE(state(u"last_sync_at, last_sync_result"_s),
                 u"2024-05-07 04:00:00+00 example.org: no new data"_s);
        QCOMPARE(state(u"country_month, open_alerts"_s), u"2024-05 2"_s);
    }

    void aLogThatWasNeverReadWaitsSinceItWasRegistered()
    {
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        run(u"INSERT INTO tarn.log_sources (site_id, path, created_at, updated_at) VALUES "
            "(1, '/read.log', '2024-01-01', '2024-05-02'), (1, '/new.log', '2024-05-03', NULL)"_s);
        QCOMPARE(state(u"oldest_log, logs_never_read"_s), u"/read.log 1"_s);
        run(u"UPDATE tarn.log_sources SET updated_at = '2024-05-04' WHERE path = '/read.log'"_s);
        QCOMPARE(state(u"oldest_log, oldest_log_since, oldest_log_read_bytes"_s),
                 u"/new.log 2024-05-03 00:00:00+00 0"_s);
    }

    void daysOfRemovedSitesDoNotWait()
    {
        run(u"INSERT INTO tarn.rollup_due VALUES (7, '2024-05-04')"_s);
        QCOMPARE(state(u"days_waiting, oldest_day_waiting"_s), u"0"_s);
    }

    // Who may watch need not be able to read what the row is made of.
    void theRowIsAllThatItsReaderNeeds()
    {
        run(u"INSERT INTO tarn.settings VALUES ('geoip_month', '2024-05')"_s);
        run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token, last_result) VALUES "
            "('google', 'token', 'example.org: no new data')"_s);
        const QSqlDatabase limited = watcher();
        QCOMPARE(test::value(limited, u"SELECT concat_ws(' ', country_month, last_sync_result) FROM "
                                      "tarn.collector_state"_s),
                 u"2024-05 example.org: no new data"_s);
        for (const QString& table : {u"settings"_s, u"engine_accounts"_s, u"alerts"_s, u"log_sources"_s})
            QCOMPARE(table + test::errorOf(limited, u"SELECT * FROM tarn."_s + table), table + u"42501"_s);
    }

    void theViewAndItsColumnsAreExplained()
    {
        QCOMPARE(test::value(session(), u"SELECT string_agg(attname, ' ') FROM pg_attribute "
                                        "WHERE attrelid = 'tarn.collector_state'::regclass "
                                        "AND col_description(attrelid, attnum) IS NULL"_s),
                 u"NULL"_s);
        QVERIFY(test::value(session(), u"SELECT obj_description('tarn.collector_state'::regclass)"_s)
                    .startsWith(u"One row"_s));
    }

    // As a monitor sends them, on a collector that has done nothing yet.
    void theStatementsOfTheDocumentAnswerOneRow()
    {
        QFile file(QStringLiteral(TARN_MONITORING));
        QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(file.fileName()));
        const QString text = QString::fromUtf8(file.readAll());
        static const QRegularExpression statement(
            u"SELECT (?:(?!SELECT|```)[\\s\\S])*? FROM tarn\\.collector_state"_s);
        const QSqlDatabase limited = watcher();
        int found = 0;
        for (auto match = statement.globalMatch(text); match.hasNext(); ++found) {
            QSqlQuery query(limited);
            const QString sent = match.next().captured();
            QVERIFY2(query.exec(sent), qPrintable(sent));
            QVERIFY2(query.size() == 1, qPrintable(sent));
        }
        QVERIFY2(found >= 3, qPrintable(QString::number(found)));
    }
};

QTEST_GUILESS_MAIN(tst_CollectorState)
#include "tst_CollectorState.moc"
