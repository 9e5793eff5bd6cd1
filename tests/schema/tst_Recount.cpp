// Every figure of a mixed log against a second count, made by another program in another language.
#include "CollectorStatements.h"
#include "support/PostgresServer.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

/// Site 1: something of everything, over weeks in which clocks change, at moments that come again and again.
const auto kMixedLog = analytics::kHitInsertion + uR"sql(
SELECT 1, at, method, path, (ARRAY[200,200,200,200,304,206,301,404,404,410,403,500,503,NULL])[1 + r[2] % 14],
       CASE r[3] % 9 WHEN 0 THEN NULL WHEN 1 THEN -5 ELSE r[3] % 90000 END,
       (ARRAY[true,true,true,false,NULL])[1 + r[4] % 5], NULL,
       CASE WHEN r[5] % 20 > 0 THEN int8send((r[5] % 37 + 100 * (r[6] % 3))::bigint) END,
       (ARRAY[NULL, 0, r[6] % 61, r[6] % 61, r[6] % 61, r[6] % 61])[1 + r[7] % 6],
       (ARRAY['DE','FR','',NULL,'US'])[1 + r[8] % 5],
       (ARRAY['direct','internal','search','search','campaign','campaign','referral',NULL,''])[1 + r[9] % 9],
       (ARRAY[NULL,'Google','','Newsletter','example.net'])[1 + r[10] % 5], NULL,
       (ARRAY[NULL,'','mountain lake','Müller & Söhne','spring'])[1 + r[11] % 5],
       (ARRAY['desktop','mobile','',NULL])[1 + r[12] % 4], (ARRAY['Firefox','Chrome',NULL])[1 + r[13] % 3],
       (ARRAY['Linux','Android'])[1 + r[14] % 2],
       (ARRAY['Googlebot','Bingbot',NULL,NULL,NULL,NULL,NULL,NULL])[1 + r[15] % 8],
       CASE WHEN method = 'BEACON' OR r[16] % 19 = 0
            THEN (ARRAY['NaN','Infinity','-Infinity','-3','0','10','10.5','21600','21601','4.5',NULL]::float8[])[1 + r[17] % 11] END,
       CASE r[18] % 7 WHEN 0 THEN NULL WHEN 1 THEN 0 WHEN 2 THEN -1 ELSE r[18] % 500 END
FROM (SELECT n, (SELECT array_agg(hashint4extended(n, i) & 1073741823 ORDER BY i) FROM generate_series(1, 21) i) AS r
      FROM generate_series(1, 9000) n) rolls
CROSS JOIN LATERAL (SELECT
       (ARRAY['2024-03-08 00:00+00','2024-03-29 00:00+00','2024-10-25 00:00+00','2024-11-01 00:00+00']::timestamptz[])
           [1 + r[1] % 4] + interval '10 min' * (r[19] % 720)
           + interval '1 ms' * (ARRAY[0, 0, r[20] % 600000])[1 + r[20] % 3] AS at,
       (ARRAY['GET','GET','GET','GET','HEAD','POST','BEACON',NULL])[1 + r[20] % 8] AS method,
       (ARRAY['/','/a','/b','/B','/ü','/päth','/c/1','/c/2','',NULL])[1 + r[21] % 10] AS path) chosen
)sql"_s;

/// Site 2: one day with more values in several dimensions than are kept, most of them with few hits.
const auto kManyValues = analytics::kHitInsertion + uR"sql(
SELECT 2, timestamptz '2024-10-26 12:00+00' + interval '1 s' * n, (ARRAY['GET','GET','GET','GET','BEACON'])[1 + n % 5],
       '/p/' || p, (ARRAY[200,200,404])[1 + n % 3], 100, true, NULL, int8send(v::bigint), n % 3000,
       'DE', (ARRAY['search','referral','campaign'])[1 + p % 3], 's' || p % 1300, NULL, 't' || p,
       'desktop', 'Firefox', 'Linux', NULL, CASE WHEN n % 5 = 4 THEN p % 40 * 0.5 END, 1 + v % 1000
FROM (SELECT n, (4000 * power(hashint4extended(n, 1)::numeric / 18446744073709551616.0 + 0.5, 2))::int AS p,
             (hashint4extended(n, 2) & 255) AS v FROM generate_series(1, 20000) n) g
)sql"_s;

const auto kHits =
    u"COPY (SELECT site_id, (extract(epoch FROM at) * 1000000)::bigint, method, path, status, bytes, "
    "is_page, visitor, session_id, country, source_kind, source, search_terms, device, browser, os, "
    "bot, engaged_secs, response_us FROM tarn.hits) TO '%1'"_s;

const auto kFigures =
    u"SELECT concat_ws('|', 'day', site_id, day, hits, page_views, visitors, sessions, bounces, bot_hits, "
    u"bytes, "
    "errors_4xx, errors_5xx, engaged_seconds, coalesce(response_us_median::text, '-'), "
    "coalesce(response_us_p95::text, '-'), raw_hits, zone) FROM tarn.site_days UNION ALL "
    "SELECT concat_ws('|', 'value', site_id, day, dimension, value, part_of, hits, visitors, "
    "coalesce(engaged_seconds::text, '-'), coalesce(response_us_p95::text, '-')) FROM tarn.site_day_values"_s;

} // namespace

class tst_Recount : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }
    static void run(const QString& statement) { test::run(session(), statement); }

    /// The lines that the other program prints for what stands in @p file.
    static QStringList recount(const QString& zone, const QString& file)
    {
        QProcess program;
        program.setStandardInputFile(file);
        program.start(u"python3"_s, {QStringLiteral(TARN_TEST_SOURCE "/recount.py"), zone});
        if (!program.waitForFinished(120'000) || program.exitCode() != 0)
            QTest::qFail(program.readAllStandardError().constData(), __FILE__, __LINE__);
        QStringList lines =
            QString::fromUtf8(program.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
        lines.sort();
        return lines;
    }

    static QStringList figures(const QSqlDatabase& database)
    {
        QStringList lines;
        QSqlQuery query(kFigures, database);
        while (query.next())
            lines.append(query.value(0).toString());
        lines.sort();
        return lines;
    }

    test::PostgresServer m_server;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        QVERIFY(m_server.connect(m_server.createDatabase(), u"session"_s).isOpen());
        run(u"CREATE ROLE tarn_collect LOGIN"_s);
        QCOMPARE(m_server.runFile(session().databaseName(), test::schemaFile(u"grants.sql"_s),
                                  {u"-v"_s, u"collector=tarn_collect"_s}),
                 QString());
        run(kMixedLog);
        run(kManyValues);
    }

    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void everyFigureAgrees_data()
    {
        QTest::addColumn<QString>("zone");
        QTest::addColumn<int>("noted"); // hits of each day, as the insert's trigger would have noted them
        for (const char* zone :
             {"UTC", "Europe/Berlin", "America/New_York", "America/Havana", "Asia/Kathmandu",
              "Atlantic/Azores", "Pacific/Kiritimati", "Pacific/Pago_Pago"})
            QTest::newRow(zone) << QString::fromLatin1(zone) << 0;
        for (const char* zone : {"UTC", "America/Havana"})
            QTest::addRow("%s-by-workers", zone) << QString::fromLatin1(zone) << 1'000'000;
    }

    void everyFigureAgrees()
    {
        QFETCH(const QString, zone);
        QFETCH(const int, noted);
        const QString file = m_server.socketFolder() + u"/hits"_s;
        run(kHits.arg(file));
        run(u"TRUNCATE tarn.rollup_due, tarn.site_days, tarn.site_day_values"_s);

        const QSqlDatabase collector =
            m_server.connect(session().databaseName(), u"collector"_s, u"tarn_collect"_s);
        test::run(collector, u"SET TimeZone = '%1'"_s.arg(zone));
        test::run(
            collector,
            u"INSERT INTO tarn.rollup_due SELECT DISTINCT site_id, at::date, %1 FROM tarn.hits"_s.arg(noted));
        test::run(collector, u"SELECT tarn.rollup_day(site_id, day) FROM tarn.rollup_due"_s);

        const QStringList actual = figures(session());
        const QStringList expected = recount(zone, file);
        QVERIFY(expected.size() > 5000);
        for (qsizetype i = 0; i < qMin(actual.size(), expected.size()); ++i)
            QCOMPARE(actual.at(i), expected.at(i));
        QCOMPARE(actual.size(), expected.size());
    }
};

QTEST_GUILESS_MAIN(tst_Recount)
#include "tst_Recount.moc"
