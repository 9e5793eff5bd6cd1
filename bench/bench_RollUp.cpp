// What counting a day costs, against the function of the first layout on the same hits and server; what
// storing a hit costs with and without its marks; how large a hit is; and what a call without news costs
// among many sites.

#include "Measure.h"
#include "support/PostgresServer.h"

#include <QCoreApplication>
#include <QSqlQuery>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

constexpr int kRounds = 3;
constexpr int kIdleCalls = 5'000;

const auto kColumns =
    u"(site_id, at, method, path, status, bytes, is_page, ip, visitor, session_id, country, "
    "source_kind, source, referrer, search_terms, device, browser, os, bot, engaged_secs, "
    "response_us)"_s;

/// %1 hits of one day of site %2: 20 of each visitor in two sessions, 6 of them pages; %3 is the path of a
/// page.
const auto kDay = u"INSERT INTO tarn.hits "_s + kColumns + uR"sql(
SELECT %2, timestamptz '2024-05-05 00:00+00' + interval '86399 s' * (n::float8 / %1),
       CASE WHEN n % 97 = 0 THEN 'HEAD' WHEN n % 20 = 7 THEN 'BEACON' ELSE 'GET' END,
       CASE WHEN n % 20 IN (0, 5, 7, 10, 13, 17, 19) THEN %3 ELSE '/static/app-' || n % 60 || '.js' END,
       CASE WHEN n % 53 = 0 THEN 404 WHEN n % 29 = 0 THEN 304 WHEN n % 17 = 0 THEN 301 ELSE 200 END,
       n % 50000, n % 20 IN (0, 5, 10, 13, 17, 19), '192.0.2.1', int8send(n / 20 * 7919::bigint), n / 10,
       (ARRAY['DE','FR','US','GB','AT','CH','PL','IT'])[1 + n / 20 % 8],
       CASE WHEN n % 20 = 0 THEN (ARRAY['direct','search','social','referral'])[1 + n / 20 % 4] ELSE 'internal' END,
       CASE WHEN n % 20 = 0 THEN (ARRAY[NULL,'Google','Mastodon','example' || n % 500 || '.net'])[1 + n / 20 % 4] END,
       'https://www.example.org/some/page', NULL, (ARRAY['desktop','mobile','tablet'])[1 + n / 20 % 3],
       (ARRAY['Firefox','Chrome','Safari','Edge'])[1 + n / 20 % 4], (ARRAY['Linux','Android','iOS'])[1 + n / 20 % 3],
       CASE WHEN n / 20 % 6 = 0 THEN 'Googlebot' END, CASE WHEN n % 20 = 7 THEN n % 60 END, n % 1009 * 197
FROM generate_series(0, %1 - 1) n)sql"_s;
const auto kOrdinaryPath =
    u"'/articles/' || (3000 * (n % 10007 * 7919 % 10007 / 10007.0) ^ 3)::int || '/some-title'"_s;
const auto kDistinctPath = u"'/wp/' || md5(n::text)"_s;

struct Day
{
    const char* name;
    int site;
    int hits;
    QString path;
};

const Day kDays[] = {
    {"100,000 ordinary hits",     1, 100'000,   kOrdinaryPath},
    {"1,000,000 ordinary hits",   2, 1'000'000, kOrdinaryPath},
    {"1,000,000 hits, own paths", 3, 1'000'000, kDistinctPath},
};

QSqlDatabase openSession(const test::PostgresServer& server, const QString& database, const QString& name)
{
    QSqlDatabase session = server.connect(database, name);
    test::run(session, u"SET TimeZone = 'UTC'"_s);
    return session;
}

void countDays(const QSqlDatabase& before, const QSqlDatabase& now)
{
    for (const Day& day : kDays) {
        for (const QSqlDatabase& session : {before, now})
            test::run(session, kDay.arg(day.hits).arg(day.site).arg(day.path));
    }
    test::run(before, u"VACUUM ANALYZE"_s);
    test::run(now, u"VACUUM ANALYZE"_s);
    for (const Day& day : kDays) {
        std::printf("\n%s\n", day.name);
        const auto count = [&day](const QSqlDatabase& session, const QString& mark, const QString& function) {
            test::run(session,
                      u"DELETE FROM tarn.site_days; DELETE FROM tarn.site_day_values; "
                      "INSERT INTO tarn.rollup_due VALUES (%1, '2024-05-05'%2) ON CONFLICT DO NOTHING; "
                      "SELECT tarn.%3(%1, '2024-05-05')"_s.arg(day.site)
                          .arg(mark, function));
        };
        const QString noted = u", %1"_s.arg(day.hits);
        bench::compare(
            {
                {u"first layout"_s, [&] { count(before, {}, u"rollup_day"_s); }},
                {u"this one"_s,     [&] { count(now, noted, u"count_day"_s); } }
        },
            kRounds, day.hits, "hits/s");
    }
    const auto size =
        u"SELECT pg_relation_size('tarn.hits') / count(*) || ' + ' || (pg_indexes_size('tarn.hits') / "
        "count(*)) || ' of indexes' FROM tarn.hits"_s;
    std::printf("\nbytes per hit: first layout %s, this one %s\n", qPrintable(test::value(before, size)),
                qPrintable(test::value(now, size)));
}

void storeHits(const QSqlDatabase& before, const QSqlDatabase& now)
{
    std::printf("\nstoring 200 hits to a statement\n");
    const auto store = [](const QSqlDatabase& session) {
        QSqlQuery query(session);
        query.exec(u"BEGIN"_s);
        for (int i = 0; i < 500; ++i)
            query.exec(kDay.arg(200).arg(4).arg(kOrdinaryPath));
        query.exec(u"ROLLBACK"_s);
    };
    bench::compare(
        {
            {u"first layout"_s, [&] { store(before); }},
            {u"this one"_s,     [&] { store(now); }   }
    },
        kRounds, 100'000, "rows/s");
}

void callIdly(const QSqlDatabase& before, const QSqlDatabase& now)
{
    std::printf("\ncalls without news, among the marks of 10,000 sites\n");
    const auto call = [](const QSqlDatabase& session) {
        QSqlQuery(u"SELECT count(tarn.rollup_day(99999, '2024-05-05')) FROM generate_series(1, %1)"_s.arg(
                      kIdleCalls),
                  session);
    };
    for (const QSqlDatabase& session : {before, now}) {
        test::run(session,
                  u"INSERT INTO tarn.rollup_due SELECT n, '2024-05-05' FROM generate_series(10, 10009) n "
                  "ON CONFLICT DO NOTHING"_s);
    }
    bench::compare(
        {
            {u"first layout"_s, [&] { call(before); }},
            {u"this one"_s,     [&] { call(now); }   }
    },
        kRounds, kIdleCalls, "calls/s");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    test::PostgresServer server;
    if (!server.start())
        return 1;
    const QString first = server.createEmptyDatabase();
    const QString errors =
        server.runFile(first, QStringLiteral(TARN_TEST_DATA "/schema/version-11-first.sql"));
    if (!errors.isEmpty())
        qFatal("%s", qPrintable(errors));
    const QSqlDatabase before = openSession(server, first, u"before"_s);
    const QSqlDatabase now = openSession(server, server.createDatabase(), u"now"_s);
    storeHits(before, now);
    callIdly(before, now);
    countDays(before, now);
    return 0;
}
