// What the tests of the roll-up share: hits, a database of their own for each, and what stands in it.
#pragma once

#include "CollectorStatements.h"
#include "Probe.h"
#include "support/PostgresServer.h"

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QTest>

namespace tarn::test {

/// One hit as a row of VALUES; what a test does not name is an ordinary page view of a person.
struct Hit
{
    QString at = u"2024-05-05 12:00:00+00"_s;
    QString path = u"'/'"_s;
    QString status = u"200"_s;
    QString bytes = u"100"_s;
    QString isPage = u"true"_s;
    QString visitor = u"aa"_s; ///< hexadecimal digits
    QString session = u"1"_s;
    QString country = u"'DE'"_s;
    QString kind = u"'direct'"_s;
    QString source = u"NULL"_s;
    QString terms = u"NULL"_s;
    QString client = u"'desktop', 'Firefox', 'Linux'"_s; ///< device, browser, operating system
    QString bot = u"NULL"_s;
    QString engaged = u"NULL"_s;
    QString responseUs = u"NULL"_s;
    QString method = u"GET"_s;
    int site = 1;

    QString text() const
    {
        const QString null = u"NULL"_s;
        const QStringList values{QString::number(site),
                                 u"'%1'"_s.arg(at),
                                 u"'%1'"_s.arg(method),
                                 path,
                                 status,
                                 bytes,
                                 isPage,
                                 null,
                                 u"'\\x%1'"_s.arg(visitor),
                                 session,
                                 country,
                                 kind,
                                 source,
                                 null,
                                 terms,
                                 client,
                                 bot,
                                 engaged,
                                 responseUs};
        return u'(' + values.join(u", "_s) + u')';
    }
};

inline Hit beacon(const QString& engaged, Hit hit = {})
{
    hit.method = u"BEACON"_s;
    hit.status = u"204"_s;
    hit.bytes = u"0"_s;
    hit.isPage = u"false"_s;
    hit.engaged = engaged;
    return hit;
}

inline Hit at(const QString& moment)
{
    return Hit{.at = moment};
}

inline const auto kMarked =
    u"SELECT coalesce(string_agg(site_id || ' ' || day, ', ' ORDER BY site_id, day), '') "
    "FROM tarn.rollup_due"_s;

/// The day's figures of site 1, named, so that a difference shows what it is in.
inline const auto kFigures =
    u"SELECT format('hits %s, views %s, visitors %s, sessions %s, bots %s, bytes %s, 4xx %s, 5xx %s, "
    "engaged %s, median %s, p95 %s', hits, page_views, visitors, sessions, bot_hits, bytes, errors_4xx, "
    "errors_5xx, engaged_seconds, coalesce(response_us_median::text, 'none'), "
    "coalesce(response_us_p95::text, 'none')) FROM tarn.site_days WHERE site_id = 1 AND day = '%1'"_s;

inline const auto kValues =
    u"SELECT string_agg(format('%s %s: %s by %s', dimension, value, hits, visitors), E'\\n' "
    "ORDER BY dimension COLLATE \"C\", value COLLATE \"C\") FROM tarn.site_day_values "
    "WHERE site_id = 1 AND day = '%1'"_s;

/// Base of the test classes: one server for all tests of a program, and an empty schema for each.
class RollUpTest : public QObject
{
protected:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }
    /// A second session on the same database.
    QSqlDatabase other() const { return m_server.connect(session().databaseName(), u"other"_s); }

    static QString scalar(const QString& statement) { return test::value(session(), statement); }
    static void run(const QString& statement) { test::run(session(), statement); }

    static void store(const QList<Hit>& hits) { store(session(), hits); }
    static void store(const QSqlDatabase& database, const QList<Hit>& hits)
    {
        QStringList rows;
        for (const Hit& hit : hits)
            rows.append(hit.text());
        test::run(database, analytics::kHitInsertion + u"VALUES "_s + rows.join(u", "_s));
    }

    static void rollUp(const QString& day = u"2024-05-05"_s, int site = 1)
    {
        // A machine that is busy takes more than 500 ms for a few hits, too, and the day would pause.
        run(u"UPDATE tarn.site_days SET rollup_ms = 0 WHERE rollup_ms > 0"_s);
        askFor(day, site);
    }
    /// As the collector does: days that pause are left alone.
    static void askFor(const QString& day, int site = 1)
    {
        run(u"SELECT tarn.rollup_day(%1, '%2')"_s.arg(site).arg(day));
    }
    static void mark(const QString& day = u"2024-05-05"_s, int site = 1)
    {
        run(u"INSERT INTO tarn.rollup_due VALUES (%1, '%2') ON CONFLICT DO NOTHING"_s.arg(site).arg(day));
    }

    static QString figures(const QString& day = u"2024-05-05"_s) { return scalar(kFigures.arg(day)); }
    static QString values(const QString& day = u"2024-05-05"_s) { return scalar(kValues.arg(day)); }
    static QString figure(const QString& column)
    {
        return scalar(u"SELECT %1 FROM tarn.site_days WHERE site_id = 1"_s.arg(column));
    }

    /// Sites 1 to 20 with 50 hits each on each of 60 days, stored in the order of time as they would come in.
    static void storeMonths()
    {
        run(analytics::kHitInsertion
            + u"SELECT s, timestamptz '2024-03-07 00:00+00' + interval '28 min' * n, 'GET', '/page/' || n % "
              u"97, "
              "200, 100, true, NULL, int8send(n % 40), n % 60, 'DE', 'direct', NULL, NULL, NULL, "
              "'desktop', 'Firefox', 'Linux', NULL, NULL, 1000 "
              "FROM generate_series(0, 3085) n, generate_series(1, 20) s ORDER BY n"_s);
    }

    /// Ends what a session's first roll-up costs (catalogs read, queries planned), and sets the session's
    /// counts of what it has read to nothing.
    static void warmUp()
    {
        mark(u"2024-04-01"_s, 1);
        rollUp(u"2024-04-01"_s, 1);
        run(u"SELECT pg_stat_force_next_flush()"_s);
    }

    /// The plans, with what was counted while they ran, of @p statement and of all that the functions in it
    /// ran. The server writes them to its log only.
    QString plansOf(const QString& statement) const
    {
        run(u"LOAD 'auto_explain'; SET auto_explain.log_nested_statements = on; SET auto_explain.log_analyze "
            u"= on; "
            "SET auto_explain.log_min_duration = 0"_s);
        const qsizetype before = m_server.log().size();
        run(statement);
        run(u"SET auto_explain.log_min_duration = -1; DO $$ BEGIN RAISE LOG 'end of plans'; END $$"_s);
        QString text;
        const auto complete = [&] {
            text = m_server.log().sliced(before);
            return text.contains(u"end of plans"_s);
        };
        return QTest::qWaitFor(complete, 30'000) ? text : u"no plans"_s;
    }

    void startServer()
    {
        QVERIFY(m_server.start());
        m_database = m_server.createDatabase();
    }

    void begin()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_server.connect(m_database, u"session"_s).isOpen());
        run(u"SET TimeZone = 'UTC'"_s);
        run(u"TRUNCATE tarn.hits, tarn.rollup_due, tarn.site_days, tarn.site_day_values"_s);
    }

    static void end()
    {
        QSqlDatabase::removeDatabase(u"other"_s);
        QSqlDatabase::removeDatabase(u"session"_s);
    }

    PostgresServer m_server;
    QString m_database;
};

} // namespace tarn::test
