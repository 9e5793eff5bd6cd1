// The running binary while its database server goes away and comes back.

#include "support/Collector.h"
#include "support/PostgresServer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

QByteArray line(int number)
{
    return "192.0.2.1 - - [10/Oct/2024:13:55:36 +0000] \"GET /" + QByteArray::number(number)
           + " HTTP/1.1\" 200 5 \"-\" \"curl/8.5\" 99\n";
}

} // namespace

class tst_Outages : public QObject
{
    Q_OBJECT

private:
    QString value(const QString& statement)
    {
        m_database = m_server.connect(m_name, u"test"_s);
        return test::value(m_database, statement);
    }

    /// Appends lines with the next numbers to the log.
    void log(int lines)
    {
        QFile file(m_folder.filePath(u"access.log"_s));
        QVERIFY(file.open(QIODevice::Append));
        for (int i = 0; i < lines; ++i)
            file.write(line(++m_lines));
    }

    /// True once every line is stored, and the place behind the last one: a server that is stopped between
    /// the two makes the collector store the lines again.
    bool waitForAllLines()
    {
        const auto all = [&] {
            return value(u"SELECT count(DISTINCT path) FROM tarn.hits"_s).toInt() == m_lines
                   && value(u"SELECT read_offset FROM tarn.log_sources"_s).toLongLong()
                          == QFileInfo(m_folder.filePath(u"access.log"_s)).size();
        };
        return QTest::qWaitFor(all, 60'000);
    }

    test::PostgresServer m_server;
    QString m_name;
    QSqlDatabase m_database;
    QTemporaryDir m_folder;
    std::unique_ptr<test::Collector> m_collector;
    int m_lines = 0;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_lines = 0;
        QFile::remove(m_folder.filePath(u"access.log"_s));
        m_collector = std::make_unique<test::Collector>();
        m_name = m_collector->useNewDatabase(m_server);
        m_collector->settings[u"database/timezone"_s] = u"Asia/Tokyo"_s;
        m_database = m_server.connect(m_name, u"test"_s);
        test::run(m_database, u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        test::run(m_database, u"INSERT INTO tarn.log_sources (path, site_id) VALUES ('%1', 1)"_s.arg(
                                  m_folder.filePath(u"access.log"_s)));
        test::run(m_database, u"ALTER DATABASE %1 SET log_statement = 'all'"_s.arg(m_name));
    }

    void cleanup() { m_collector.reset(); }

    void longOutageCostsNeitherLinesNorProcessorTime()
    {
        log(10);
        const qsizetype toldBefore = m_server.log().count(u"LISTEN "_s);
        m_collector->start();
        QVERIFY(waitForAllLines());
        QTRY_COMPARE_WITH_TIMEOUT(m_server.log().count(u"LISTEN "_s), toldBefore + 2, 20'000);
        m_database.close();
        m_server.stop();

        QVERIFY(m_collector->waitForLog(u"database: reconnect failed: "_s));
        const double before = m_collector->cpuSeconds();
        const qsizetype warnings = m_collector->log().filter(u"database: reconnect failed: "_s).size();
        QElapsedTimer timer;
        timer.start();
        QVERIFY(m_collector->waitForLog(u"database: reconnect failed: "_s, warnings + 3));
        // A collector that spins uses all of the time; one that waits uses next to nothing of it.
        const double share =
            (m_collector->cpuSeconds() - before) * 1000 / static_cast<double>(timer.elapsed());
        QVERIFY2(share < 0.25, qPrintable(QString::number(share)));

        log(10);
        const qsizetype told = m_server.log().count(u"LISTEN "_s);
        QVERIFY(m_server.restart());
        QVERIFY(m_collector->waitForLog(u"database: reconnected"_s));
        QVERIFY(waitForAllLines());
        QCOMPARE(value(u"SELECT count(*) FROM tarn.hits"_s).toInt(), m_lines);
        // It listens again, in the same order, and in its own time zone.
        QTRY_COMPARE(m_server.log().count(u"LISTEN "_s), told + 2);
        const QString log = m_server.log();
        QVERIFY(log.lastIndexOf(u"LISTEN \"tarn_sync\""_s) < log.lastIndexOf(u"LISTEN \"tarn_usage\""_s));
        QVERIFY(log.lastIndexOf(u"Asia/Tokyo"_s) < log.lastIndexOf(u"LISTEN \"tarn_sync\""_s));
    }

    void aSessionLostJustBeforeTheChannelsCostsNone()
    {
        // The place in the log is stored right before.
        test::run(m_database, u"CREATE SEQUENCE public.times"_s);
        test::run(m_database, u"CREATE FUNCTION public.leave() RETURNS trigger LANGUAGE plpgsql AS "
                              "'BEGIN IF nextval(''public.times'') = 1 THEN "
                              "PERFORM pg_terminate_backend(pg_backend_pid()); END IF; RETURN NEW; END'"_s);
        test::run(m_database, u"CREATE TRIGGER leave BEFORE UPDATE ON tarn.log_sources FOR EACH ROW "
                              "EXECUTE FUNCTION public.leave()"_s);
        log(1);
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"database: reconnected"_s));
        const auto asked = [this] {
            test::run(m_database, u"NOTIFY tarn_usage"_s);
            return m_collector->agent.calls(u"hosting.usage"_s).size() >= 2;
        };
        QVERIFY(QTest::qWaitFor(asked, 60'000));
    }

    void nothingButOurOwnWordsInTheLog()
    {
        m_collector->start();
        log(1);
        QVERIFY(waitForAllLines());
        m_database.close();
        m_server.stop();
        QVERIFY(m_collector->waitForLog(u"database: reconnect failed: "_s, 2));
        QVERIFY(m_server.restart());
        QVERIFY(m_collector->waitForLog(u"database: reconnected"_s));
        // A statement that comes just then fails; the client library has lines of its own on the end of the
        // session, and the driver one on each statement that was prepared in it.
        static const QRegularExpression expected(
            u"^(database: |sql: |FATAL:  terminating connection due to administrator command|"
            "server closed the connection unexpectedly|\\t|QPSQL: |Unable to free statement: )"_s);
        for (const QString& entry : m_collector->log())
            QVERIFY2(expected.match(entry).hasMatch(), qPrintable(entry));
    }

    void restartsUnderLoad_data()
    {
        QTest::addColumn<bool>("hard");
        QTest::newRow("stopped-in-order") << false;
        QTest::newRow("killed") << true;
    }
    void restartsUnderLoad()
    {
        QFETCH(const bool, hard);
        m_collector->start();
        log(100);
        QVERIFY(waitForAllLines());
        QList<qint64> committed;
        for (int round = 0; round < 4; ++round) {
            log(6'000);
            // Into the middle of a slice, which takes longer than this.
            QTest::qWait(1'900 + 150 * round);
            m_database.close();
            if (hard) {
                m_server.kill();
            } else {
                m_server.stop();
            }
            log(100);
            QVERIFY(m_server.restart());
            committed.append(value(u"SELECT read_offset FROM tarn.log_sources"_s).toLongLong());
        }
        QVERIFY(waitForAllLines());

        // Lines whose hits and whose place were both committed before an outage are stored once.
        QFile file(m_folder.filePath(u"access.log"_s));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const auto safe = file.read(committed.last()).count('\n');
        QVERIFY2(safe > 0, "no slice was finished before the last restart");
        QCOMPARE(value(u"SELECT count(*) FROM tarn.hits WHERE substr(path, 2)::int <= %1"_s.arg(safe))
                     .toLongLong(),
                 safe);
    }
};

QTEST_GUILESS_MAIN(tst_Outages)
#include "tst_Outages.moc"
