#include "analytics/HitTransaction.h"
#include "analytics/IngestTest.h"
#include "common/Db.h"
#include "support/Messages.h"

#include <QSignalSpy>
#include <QSqlDatabase>
#include <QSqlDriver>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// A call as a whole: its batches, its transaction, what it announces, and roll-ups.
class tst_Ingest : public IngestTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void initWantsTheSecret()
    {
        run(u"DELETE FROM tarn.settings WHERE key = 'visitor_secret'"_s);
        QVERIFY(!Ingest().init());
        run(u"DROP TABLE tarn.settings CASCADE"_s);
        QVERIFY(!Ingest().init());
    }

    void blankLinesAreNotCounted()
    {
        const auto result = ingest({"", " ", "\r", " \t\r", lineAt("10:00:00"), ""});
        QCOMPARE(result.lines, 1);
        QCOMPARE(result.skipped, 0);
        QCOMPARE(result.stored, 1);
    }

    void insertStatement()
    {
        const auto head =
            u"INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, ip, visitor, "
            "session_id, country, source_kind, source, referrer, search_terms, device, browser, os, "
            "bot, engaged_secs, response_us) VALUES "_s;
        const auto group = u"(?, ?, ?, ?, ?, ?, ?, CAST(? AS inet), ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"_s;
        QCOMPARE(analytics::hitInsertStatement(1), head + group);
        QCOMPARE(analytics::hitInsertStatement(2), head + group + u", "_s + group);
        QCOMPARE(analytics::hitInsertStatement(200).count(u'?'), 4200);
    }

    void batchesAndTheirNotification_data()
    {
        QTest::addColumn<int>("lines");
        QTest::addColumn<QString>("statements");
        QTest::newRow("one") << 1 << u"1"_s;
        QTest::newRow("full-batch") << 200 << u"200"_s;
        QTest::newRow("full-batch-plus-one") << 201 << u"200 1"_s;
        QTest::newRow("two-full-batches-plus-one") << 401 << u"200 200 1"_s;
    }
    void batchesAndTheirNotification()
    {
        QFETCH(const int, lines);
        QFETCH(const QString, statements);
        run(u"CREATE TABLE statements (n serial, rows bigint)"_s);
        run(u"CREATE FUNCTION note() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN INSERT INTO statements (rows) SELECT count(*) FROM added; RETURN NULL; END'"_s);
        run(u"CREATE TRIGGER note AFTER INSERT ON tarn.hits REFERENCING NEW TABLE AS added "
            "FOR EACH STATEMENT EXECUTE FUNCTION note()"_s);
        const QSqlDatabase listener = m_session.other();
        QSignalSpy spy(listener.driver(), &QSqlDriver::notification);
        QVERIFY(listener.driver()->subscribeToNotification(u"tarn_hits"_s));

        const auto result = ingest(QList<QByteArray>(lines, lineAt("10:00:00")));
        QCOMPARE(result.stored, lines);
        QCOMPARE(scalar(u"SELECT string_agg(rows::text, ' ' ORDER BY n) FROM statements"_s), statements);
        run(listener, u"SELECT 1"_s);
        QTRY_COMPARE(spy.size(), 1);
        QCOMPARE(spy.at(0).at(0).toString(), u"tarn_hits"_s);
        QCOMPARE(spy.at(0).at(2).toString(), u"1"_s);
        QTest::qWait(50);
        QCOMPARE(spy.size(), 1);
    }

    void theNotificationNamesTheSite()
    {
        const QSqlDatabase listener = m_session.other();
        const QSignalSpy spy(listener.driver(), &QSqlDriver::notification);
        QVERIFY(listener.driver()->subscribeToNotification(u"tarn_hits"_s));
        m_ingest->ingest(2, u"example.net"_s, {Line{}.text()});
        run(listener, u"SELECT 1"_s);
        QTRY_COMPARE(spy.size(), 1);
        QCOMPARE(spy.at(0).at(2).toString(), u"2"_s);
    }

    void nothingStoredNothingAnnounced()
    {
        const QSqlDatabase listener = m_session.other();
        QSignalSpy spy(listener.driver(), &QSqlDriver::notification);
        QVERIFY(listener.driver()->subscribeToNotification(u"tarn_hits"_s));
        const auto result = ingest({"what", "is this", beaconLine("?t=0")});
        QCOMPARE(result.lines, 3);
        QCOMPARE(result.skipped, 2);
        QCOMPARE(result.stored, 0);
        run(u"SELECT pg_notify('tarn_hits', 'end')"_s);
        QTRY_COMPARE(spy.size(), 1);
        QCOMPARE(spy.at(0).at(2).toString(), u"end"_s);
    }

    void fullBatchIsPreparedOnceACall()
    {
        run(u"ALTER DATABASE %1 SET log_statement = 'all'"_s.arg(db::session().databaseName()));
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(true));
        run(u"SELECT 'start of the call'"_s);
        ingest(QList<QByteArray>(601, lineAt("10:00:00")));
        run(u"SELECT 'end of the call'"_s);
        QStringList log;
        QTRY_VERIFY(!(log = m_server.logBetween(u"start of the call"_s, u"end of the call"_s)).isEmpty());
        const auto count = [&log](const QString& pattern) {
            return log.filter(QRegularExpression(pattern)).size();
        };
        // One for the full batch and one for the rest.
        QCOMPARE(scalar(u"SELECT count(*) FROM pg_prepared_statements WHERE statement LIKE 'INSERT INTO "
                        "tarn.hits%'"_s),
                 u"2"_s);
        // Three full ones, the rest, the notification.
        QCOMPARE(count(u"execute \\S+: INSERT INTO tarn.hits"_s), 3 + 1);
        QCOMPARE(count(u"execute \\S+: SELECT pg_notify"_s), 1);
        QCOMPARE(count(u"statement: (PREPARE|EXECUTE|SAVEPOINT)"_s), 0);
        QCOMPARE(count(u"statement: BEGIN"_s), 1);
        QCOMPARE(count(u"statement: COMMIT"_s), 1);
    }

    void statementsOfAllSizesStayBoundedInTheServer()
    {
        for (int n = 1; n < 200; n += 3)
            QCOMPARE(ingest(QList<QByteArray>(n, lineAt("10:00:00"))).stored, n);
        const double megabytes =
            scalar(u"SELECT sum(total_bytes) / 1048576.0 FROM pg_backend_memory_contexts"_s).toDouble();
        QVERIFY2(megabytes < 16, qPrintable(QString::number(megabytes)));
        // cleanup() counts their placeholders.
    }

    void refusedBatchKeepsNothingOfTheCall()
    {
        run(u"ALTER TABLE tarn.hits ADD CONSTRAINT test CHECK (path <> '/refused')"_s);
        QList<QByteArray> lines(601, lineAt("10:00:00"));
        lines[300] = Line{.request = "GET /refused HTTP/1.1"}.text();
        lines.append("not an entry");
        expectSqlWarning(u"violates check constraint \"test\""_s);
        const auto result = ingest(lines);
        QCOMPARE(result.lines, 602);
        QCOMPARE(result.skipped, 1);
        QCOMPARE(result.stored, 200); // the batch before it, which the database had taken
        QCOMPARE(hitCount(), u"0"_s);
        QCOMPARE(ingest({lineAt("10:00:00")}).stored, 1);
        QCOMPARE(hitCount(), u"1"_s);
    }

    void refusedBatchesLeaveNoStatementInTheServer()
    {
        run(u"ALTER TABLE tarn.hits ADD CONSTRAINT test CHECK (false) NOT VALID"_s);
        useCountries();
        for (int i = 0; i < 5; ++i) {
            expectSqlWarning(u"check constraint \"test\""_s);
            QCOMPARE(ingest(QList<QByteArray>(i % 2 == 0 ? 200 : 7, lineAt("10:00:00"))).stored, 0);
            QCOMPARE(scalar(u"SELECT count(*) FROM pg_prepared_statements"_s), u"0"_s);
        }
    }

    void commitThatFailsIsSaid()
    {
        run(u"CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN RAISE ''not now''; END'"_s);
        run(u"CREATE CONSTRAINT TRIGGER refuse AFTER INSERT ON tarn.hits DEFERRABLE INITIALLY DEFERRED "
            "FOR EACH ROW EXECUTE FUNCTION refuse()"_s);
        expectSqlWarning(u"not now"_s);
        ingest({lineAt("10:00:00")});
        QCOMPARE(hitCount(), u"0"_s);
        run(u"DROP TRIGGER refuse ON tarn.hits"_s);
        ingest({lineAt("10:00:00")});
        QCOMPARE(hitCount(), u"1"_s);
    }

    void lostSessionStopsTheCallQuietly()
    {
        const QString backend = scalar(u"SELECT pg_backend_pid()"_s);
        run(m_session.other(), u"SELECT pg_terminate_backend(%1)"_s.arg(backend));
        // The driver's own remarks come as well, but none for each of the lines.
        Ingest::Result result;
        const QStringList messages =
            messagesOf([&] { result = ingest(QList<QByteArray>(1000, lineAt("10:00:00"))); });
        QVERIFY2(messages.size() <= 5, qPrintable(messages.join(u" | "_s)));
        QCOMPARE(result.stored, 0);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
        QCOMPARE(ingest({lineAt("10:00:00")}).stored, 1);
        QCOMPARE(hitCount(), u"1"_s);
    }

    void rollupShowsTheHits()
    {
        ingest({lineAt("10:00:00"), lineAt("10:00:01"), beaconLine("?p=/about&t=4")});
        Ingest::rollup(1, {QDate(2024, 10, 10), QDate(2024, 10, 9)});
        QCOMPARE(
            scalar(u"SELECT format('%s %s %s', page_views, visitors, engaged_seconds) FROM tarn.site_days"_s),
            u"2 1 4"_s);
    }

    void rollupFailureIsOnlyLogged()
    {
        run(u"DROP FUNCTION tarn.rollup_day"_s);
        expectSqlWarning(u"rollup_day"_s);
        Ingest::rollup(1, {QDate(2024, 10, 10)});
    }
};

QTEST_GUILESS_MAIN(tst_Ingest)
#include "tst_Ingest.moc"
