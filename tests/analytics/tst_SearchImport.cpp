#include "analytics/SearchImport.h"
#include "common/Db.h"
#include "support/Messages.h"
#include "support/ProductSession.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::run;
using test::scalar;

namespace {

/// A row as an engine sends it.
QJsonObject row(const QStringList& keys, int clicks = 1, int impressions = 10, double position = 2.5)
{
    return {
        {u"keys"_s,        QJsonArray::fromStringList(keys)},
        {u"clicks"_s,      clicks                          },
        {u"impressions"_s, impressions                     },
        {u"ctr"_s,         0.1                             },
        {u"position"_s,    position                        }
    };
}

QJsonObject detail(const QString& day, const QString& page = u"https://example.org/shoes"_s,
                   const QString& country = u"deu"_s)
{
    return row({day, u"red shoes"_s, page, country, u"MOBILE"_s});
}

QJsonObject document(const QJsonArray& totals, const QJsonArray& rows)
{
    return {
        {u"totals"_s, totals},
        {u"rows"_s,   rows  }
    };
}

QJsonObject parsed(const QByteArray& text)
{
    QJsonParseError error;
    QJsonObject object = QJsonDocument::fromJson(text, &error).object();
    if (error.error != QJsonParseError::NoError)
        qFatal("the test's JSON does not parse: %s", qPrintable(error.errorString()));
    return object;
}

/// One day of totals and one detail row, of which @p keys are the members of "keys" behind the day.
QJsonObject oneRow(const QByteArray& keys, const QByteArray& figures = "\"clicks\":1")
{
    // No raw strings in this file: Qt's meta-object compiler finds no class behind one with brackets in it.
    return parsed("{\"totals\":[{\"keys\":[\"2024-10-10\"]}],\"rows\":[{\"keys\":[\"2024-10-10\"," + keys
                  + "]," + figures + "}]}");
}

} // namespace

class tst_SearchImport : public QObject
{
    Q_OBJECT

private:
    QString import(const QJsonObject& document, int site = 1, const QString& engine = u"google"_s)
    {
        m_ok = true;
        return analytics::importSearchData(site, engine, document, &m_ok);
    }

    static QString days()
    {
        return scalar(
            u"SELECT string_agg(format('%s %s %s %s %s %s', site_id, engine, day, clicks, impressions, "
            "position), '|' ORDER BY site_id, engine, day) FROM tarn.search_days"_s);
    }
    static QString rows()
    {
        return scalar(
            u"SELECT string_agg(format('%s %s %s %s %s %s %s %s %s %s', site_id, engine, day, query, page, "
            "coalesce(country, 'NULL'), device, clicks, impressions, position), '|' "
            "ORDER BY site_id, engine, day, page) FROM tarn.search_rows"_s);
    }
    /// Column @p name of the only detail row.
    static QString column(const QString& name)
    {
        return scalar(u"SELECT %1 FROM tarn.search_rows"_s.arg(name));
    }

    static void expectSqlWarning(const QString& text)
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*"_s + text));
    }
    static void expectSpoilt() { expectSqlWarning(u"current transaction is aborted"_s); }

    void failsToStore(const QJsonObject& document)
    {
        QCOMPARE(import(document), u"database error while storing"_s);
        QVERIFY(!m_ok);
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};
    bool m_ok = false;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_session.open());
    }

    void cleanup() { m_session.close(); }

    void statement()
    {
        const auto tuple =
            u"(?, ?, CAST(? AS date), ?, ?, (SELECT alpha2 FROM tarn.country_codes WHERE alpha3 = "
            "?), ?, ?, ?, ?)"_s;
        QCOMPARE(analytics::searchRowInsertStatement(1), u"INSERT INTO tarn.search_rows VALUES "_s + tuple);
        QCOMPARE(analytics::searchRowInsertStatement(2),
                 u"INSERT INTO tarn.search_rows VALUES "_s + tuple + u", "_s + tuple);
        QCOMPARE(analytics::searchRowInsertStatement(500).count(u'?'), 5000);
    }

    void everyColumn()
    {
        const QString message = import(document(
            {row({u"2024-10-10"_s}, 3, 120, 7.123456789012345), row({u"2024-10-11"_s}, 2147483647, 0, 1)},
            {row({u"2024-10-10"_s, u"red 'shoes' \\ ?"_s, u"https://www.example.org/sh%C3%B6n%20/a?x=1#top"_s,
                  u"DEU"_s, u"MOBILE"_s},
                 1, 20, 2.5)}));
        QCOMPARE(message, u"2 days (2024-10-10 to 2024-10-11), 1 detail rows"_s);
        QVERIFY(m_ok);
        QCOMPARE(days(), u"1 google 2024-10-10 3 120 7.123456789012345|1 google 2024-10-11 2147483647 0 1"_s);
        QCOMPARE(rows(), u"1 google 2024-10-10 red 'shoes' \\ ? /sh\u00f6n /a DE mobile 1 20 2.5"_s);
    }

    void withoutTotalsNothingIsTouched_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("empty-document") << QByteArray("{}");
        QTest::newRow("empty-totals") << QByteArray("{\"totals\":[],\"rows\":[{\"keys\":[\"2024-10-10\"]}]}");
        QTest::newRow("null") << QByteArray("{\"totals\":null}");
        QTest::newRow("no-array") << QByteArray("{\"totals\":{\"keys\":[\"2024-10-10\"]}}");
    }
    void withoutTotalsNothingIsTouched()
    {
        QFETCH(const QByteArray, json);
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        QVERIFY(m_ok);
        QCOMPARE(import(parsed(json)), u"no daily totals in the data"_s);
        QVERIFY(!m_ok);
        QCOMPARE(days(), u"1 google 2024-10-10 1 10 2.5"_s);
        QCOMPARE(rows(), u"1 google 2024-10-10 red shoes /shoes DE mobile 1 10 2.5"_s);
    }

    void batches_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<QString>("batches"); // rows of each statement
        QTest::newRow("none") << 0 << u"NULL"_s;
        QTest::newRow("one") << 1 << u"1"_s;
        QTest::newRow("one-short-of-a-batch") << 499 << u"499"_s;
        QTest::newRow("a-batch") << 500 << u"500"_s;
        QTest::newRow("a-batch-and-one") << 501 << u"500 1"_s;
        QTest::newRow("two-batches-and-a-rest") << 1201 << u"500 500 201"_s;
    }
    void batches()
    {
        QFETCH(const int, count);
        QFETCH(const QString, batches);
        run(u"CREATE TABLE public.batches (id serial, size int)"_s);
        run(u"CREATE FUNCTION public.note() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN INSERT INTO public.batches (size) SELECT count(*) FROM n; RETURN NULL; END'"_s);
        for (const QString& table : {u"days"_s, u"rows"_s}) {
            run(u"CREATE TRIGGER note AFTER INSERT ON tarn.search_%1 REFERENCING NEW TABLE AS n "
                "FOR EACH STATEMENT EXECUTE FUNCTION public.note()"_s.arg(table));
        }
        QJsonArray rows;
        for (int i = 0; i < count; ++i)
            rows.append(detail(u"2024-10-1%1"_s.arg(i % 3), u"https://example.org/%1"_s.arg(i)));
        QCOMPARE(
            import(document({row({u"2024-10-11"_s}), row({u"2024-10-12"_s}), row({u"2024-10-10"_s})}, rows)),
            u"3 days (2024-10-10 to 2024-10-12), %1 detail rows"_s.arg(count));
        QCOMPARE(
            scalar(u"SELECT string_agg(size::text, ' ' ORDER BY id) FROM public.batches WHERE id <= 3"_s),
            u"1 1 1"_s); // the days
        QCOMPARE(scalar(u"SELECT string_agg(size::text, ' ' ORDER BY id) FROM public.batches WHERE id > 3"_s),
                 batches);
        QCOMPARE(scalar(u"SELECT count(DISTINCT page) FROM tarn.search_rows"_s), QString::number(count));
        // Each row with its own values, whichever batch it was in.
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.search_rows WHERE "
                        "day <> date '2024-10-10' + substr(page, 2)::int % 3"_s),
                 u"0"_s);
    }

    void importingAgainChangesNothing()
    {
        const QJsonObject data = document({row({u"2024-10-10"_s}), row({u"2024-10-11"_s})},
                                          {detail(u"2024-10-10"_s), detail(u"2024-10-11"_s)});
        import(data);
        const QString firstDays = days();
        const QString firstRows = rows();
        QCOMPARE(import(data), u"2 days (2024-10-10 to 2024-10-11), 2 detail rows"_s);
        QVERIFY(m_ok);
        QCOMPARE(days(), firstDays);
        QCOMPARE(rows(), firstRows);
    }

    void replacesTheRangeOfThatSiteAndEngineOnly()
    {
        for (const QString& day : {u"2024-10-09"_s, u"2024-10-10"_s, u"2024-10-12"_s, u"2024-10-13"_s})
            import(document({row({day}, 7)}, {detail(day)}));
        import(document({row({u"2024-10-11"_s}, 7)}, {detail(u"2024-10-11"_s)}), 2);
        import(document({row({u"2024-10-11"_s}, 7)}, {detail(u"2024-10-11"_s)}), 1, u"bing"_s);
        // The totals alone are the range: the detail row of the 13th deletes nothing there.
        import(document({row({u"2024-10-12"_s}), row({u"2024-10-10"_s})},
                        {detail(u"2024-10-13"_s, u"https://example.org/new"_s)}));
        QVERIFY(m_ok);
        QCOMPARE(days(),
                 u"1 bing 2024-10-11 7 10 2.5|1 google 2024-10-09 7 10 2.5|1 google 2024-10-10 1 10 2.5|"
                 "1 google 2024-10-12 1 10 2.5|1 google 2024-10-13 7 10 2.5|2 google 2024-10-11 7 10 2.5"_s);
        QCOMPARE(scalar(u"SELECT string_agg(concat_ws(' ', site_id, engine, day, page), '|' "
                        "ORDER BY site_id, engine, day, page) FROM tarn.search_rows"_s),
                 u"1 bing 2024-10-11 /shoes|1 google 2024-10-09 /shoes|1 google 2024-10-13 /new|"
                 "1 google 2024-10-13 /shoes|2 google 2024-10-11 /shoes"_s);
    }

    void withoutRowsTheRangeIsCleared()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        QCOMPARE(import(document({row({u"2024-10-10"_s}, 5)}, {})),
                 u"1 days (2024-10-10 to 2024-10-10), 0 detail rows"_s);
        QCOMPARE(days(), u"1 google 2024-10-10 5 10 2.5"_s);
        QCOMPARE(rows(), u"NULL"_s);
    }

    void page_data()
    {
        QTest::addColumn<QByteArray>("url");
        QTest::addColumn<QString>("path");
        QTest::newRow("plain") << QByteArray("https://example.org/a/b") << u"/a/b"_s;
        QTest::newRow("query-and-fragment") << QByteArray("https://example.org/a?b=c#d") << u"/a"_s;
        QTest::newRow("other-scheme-and-host") << QByteArray("http://www.example.net:8080/a") << u"/a"_s;
        QTest::newRow("no-path") << QByteArray("https://example.org") << u""_s;
        QTest::newRow("root") << QByteArray("https://example.org/") << u"/"_s;
        QTest::newRow("encoded-space") << QByteArray("https://example.org/a%20b") << u"/a b"_s;
        QTest::newRow("encoded-slash-and-question-mark")
            << QByteArray("https://example.org/a%2Fb%3Fc") << u"/a/b?c"_s;
        QTest::newRow("encoded-percent") << QByteArray("https://example.org/100%25") << u"/100%"_s;
        QTest::newRow("stray-percent")
            << QByteArray("https://example.org/50%-off%20shoes") << u"/50%-off shoes"_s;
        QTest::newRow("encoded-nul") << QByteArray("https://example.org/a%00b") << u"/ab"_s;
        QTest::newRow("plus-stays") << QByteArray("https://example.org/a+b") << u"/a+b"_s;
        QTest::newRow("bare-non-ascii") << QByteArray("https://example.org/sch\xc3\xb6n") << u"/sch\u00f6n"_s;
        QTest::newRow("bare-space") << QByteArray("https://example.org/a b") << u"/a b"_s;
        QTest::newRow("relative") << QByteArray("/a/b?c") << u"/a/b"_s;
        QTest::newRow("empty") << QByteArray("") << u""_s;
        QTest::newRow("no-url") << QByteArray("https://[oops/a") << u"/a"_s;
    }
    void page()
    {
        QFETCH(const QByteArray, url);
        QFETCH(const QString, path);
        import(oneRow("\"q\",\"" + url + "\",\"deu\",\"MOBILE\""));
        QVERIFY(m_ok);
        QCOMPARE(column(u"page"_s), path);
    }

    void country_data()
    {
        QTest::addColumn<QByteArray>("alpha3"); // as JSON
        QTest::addColumn<QString>("alpha2");
        QTest::newRow("lower-case") << QByteArray("\"deu\"") << u"DE"_s;
        QTest::newRow("upper-case") << QByteArray("\"DEU\"") << u"DE"_s;
        QTest::newRow("unknown") << QByteArray("\"zzz\"") << u"NULL"_s;
        QTest::newRow("alpha-2") << QByteArray("\"de\"") << u"NULL"_s;
        QTest::newRow("empty") << QByteArray("\"\"") << u"NULL"_s;
        QTest::newRow("null") << QByteArray("null") << u"NULL"_s;
        QTest::newRow("number") << QByteArray("49") << u"NULL"_s;
        QTest::newRow("nul-inside") << QByteArray("\"d\\u0000eu\"") << u"DE"_s;
    }
    void country()
    {
        QFETCH(const QByteArray, alpha3);
        QFETCH(const QString, alpha2);
        import(oneRow("\"q\",\"https://example.org/\"," + alpha3 + ",\"MOBILE\""));
        QVERIFY(m_ok);
        QCOMPARE(column(u"country"_s), alpha2);
    }

    void oddTexts_data()
    {
        QTest::addColumn<QByteArray>("keys"); // behind the day, as JSON
        QTest::addColumn<QString>("stored");
        QTest::newRow("missing") << QByteArray("\"q\"") << u"q//-/"_s;
        QTest::newRow("nulls") << QByteArray("null,null,null,null") << u"//-/"_s;
        QTest::newRow("numbers") << QByteArray("1,2,3,4") << u"//-/"_s;
        QTest::newRow("containers") << QByteArray("[],{},[\"deu\"],{\"a\":1}") << u"//-/"_s;
        QTest::newRow("nul-characters")
            << QByteArray("\"\\u0000a\\u0000b\",\"https://example.org/a\\u0000b\",\"deu\",\"MO\\u0000BILE\"")
            << u"ab//ab/DE/mobile"_s;
        QTest::newRow("only-nul-characters")
            << QByteArray("\"\\u0000\",\"\\u0000\",\"\\u0000\",\"\\u0000\"") << u"//-/"_s;
        QTest::newRow("non-ascii") << QByteArray("\"\xc3\x9c \xf0\x9f\x98\x80\",\"/\",\"deu\",\"\xc3\x9c\"")
                                   << u"\u00dc \U0001F600///DE/\u00fc"_s;
        QTest::newRow("statement-in-it")
            << QByteArray("\"'); DROP TABLE tarn.search_rows; --\",\"/\",\"deu\",\"a\\\\b\"")
            << u"'); DROP TABLE tarn.search_rows; --///DE/a\\b"_s;
    }
    void oddTexts()
    {
        QFETCH(const QByteArray, keys);
        QFETCH(const QString, stored);
        import(oneRow(keys));
        QVERIFY(m_ok);
        QCOMPARE(column(u"concat(query, '/', page, '/', coalesce(country, '-'), '/', device)"_s), stored);
        QCOMPARE(column(u"query IS NULL OR page IS NULL OR device IS NULL"_s), u"false"_s);
    }

    void loneSurrogatesCostNothingElse()
    {
        import(oneRow("\"a\\ud800b\",\"https://example.org/\\udc00\",\"deu\",\"\\ud83d\""));
        QVERIFY(m_ok);
        QCOMPARE(column(u"left(query, 1) || right(query, 1)"_s), u"ab"_s);
        QCOMPARE(column(u"left(page, 1)"_s), u"/"_s);
    }

    void figures_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("stored");
        QTest::newRow("whole") << QByteArray("\"clicks\":3,\"impressions\":4,\"position\":5") << u"3 4 5"_s;
        QTest::newRow("missing") << QByteArray("\"ctr\":1") << u"0 0 0"_s;
        QTest::newRow("texts") << QByteArray("\"clicks\":\"3\",\"impressions\":\"4\",\"position\":\"5\"")
                               << u"0 0 0"_s;
        QTest::newRow("nulls") << QByteArray("\"clicks\":null,\"impressions\":null,\"position\":null")
                               << u"0 0 0"_s;
        QTest::newRow("whole-with-fraction-part")
            << QByteArray("\"clicks\":3.0,\"impressions\":4e2,\"position\":1.5") << u"3 400 1.5"_s;
        QTest::newRow("fractions") << QByteArray("\"clicks\":3.5,\"impressions\":0.1,\"position\":0.1")
                                   << u"0 0 0.1"_s;
        QTest::newRow("largest") << QByteArray(
            "\"clicks\":2147483647,\"impressions\":-2147483648,\"position\":-1")
                                 << u"2147483647 -2147483648 -1"_s;
        QTest::newRow("past-the-largest")
            << QByteArray("\"clicks\":2147483648,\"impressions\":-2147483649,\"position\":1e300")
            << u"0 0 1e+300"_s;
        QTest::newRow("far-past-the-largest")
            << QByteArray("\"clicks\":9223372036854775807,\"impressions\":1e300,\"position\":0")
            << u"0 0 0"_s;
    }
    void figures()
    {
        QFETCH(const QByteArray, json);
        QFETCH(const QString, stored);
        import(oneRow("\"q\",\"/\",\"deu\",\"MOBILE\"", json));
        QVERIFY(m_ok);
        QCOMPARE(column(u"concat_ws(' ', clicks, impressions, position)"_s), stored);
    }

    void badDay_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("inTheTotals");
        const QByteArray good = "{\"totals\":[{\"keys\":[\"2024-10-10\"]}],\"rows\":[{\"keys\":[";
        QTest::newRow("totals-no-keys") << QByteArray("{\"totals\":[{\"clicks\":1}]}") << true;
        QTest::newRow("totals-no-object") << QByteArray("{\"totals\":[1]}") << true;
        QTest::newRow("totals-number") << QByteArray("{\"totals\":[{\"keys\":[20241010.5]}]}") << true;
        QTest::newRow("totals-empty") << QByteArray("{\"totals\":[{\"keys\":[\"\"]}]}") << true;
        QTest::newRow("totals-no-such-day")
            << QByteArray("{\"totals\":[{\"keys\":[\"2023-02-29\"]}]}") << true;
        QTest::newRow("totals-far-future")
            << QByteArray("{\"totals\":[{\"keys\":[\"9999999-01-01\"]}]}") << true;
        QTest::newRow("row-no-such-day") << good + "\"2023-02-29\"]}]}" << false;
        QTest::newRow("row-empty") << good + "\"\"]}]}" << false;
        QTest::newRow("row-no-object")
            << QByteArray("{\"totals\":[{\"keys\":[\"2024-10-10\"]}],\"rows\":[7]}") << false;
    }
    void badDay()
    {
        QFETCH(const QByteArray, json);
        QFETCH(const bool, inTheTotals);
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        expectSqlWarning(u"(invalid input syntax for type date|out of range)"_s);
        // The deletion was the first to fail; what comes behind it is told as well.
        if (inTheTotals) {
            expectSpoilt();
            expectSpoilt();
        }
        failsToStore(parsed(json));
        QCOMPARE(days(), u"1 google 2024-10-10 1 10 2.5"_s);
        QCOMPARE(rows(), u"1 google 2024-10-10 red shoes /shoes DE mobile 1 10 2.5"_s);
    }

    void aDayTwiceRollsBack()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        expectSqlWarning(u"duplicate key"_s);
        failsToStore(document({row({u"2024-10-10"_s}, 5), row({u"2024-10-10"_s}, 6)}, {}));
        QCOMPARE(days(), u"1 google 2024-10-10 1 10 2.5"_s);
        QCOMPARE(rows(), u"1 google 2024-10-10 red shoes /shoes DE mobile 1 10 2.5"_s);
    }

    void refusedBatchRollsBack_data()
    {
        QTest::addColumn<int>("bad"); // which of 1201 rows
        QTest::newRow("first-batch") << 0;
        QTest::newRow("second-batch") << 999;
        QTest::newRow("last-batch") << 1200;
    }
    void refusedBatchRollsBack()
    {
        QFETCH(const int, bad);
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        QJsonArray rows;
        for (int i = 0; i < 1201; ++i)
            rows.append(detail(i == bad ? u"soon"_s : u"2024-10-10"_s));
        expectSqlWarning(u"invalid input syntax for type date: \"soon\""_s);
        failsToStore(document({row({u"2024-10-10"_s}, 5)}, rows));
        QCOMPARE(days(), u"1 google 2024-10-10 1 10 2.5"_s);
        QCOMPARE(column(u"count(*)"_s), u"1"_s);
    }

    void missingTable_data()
    {
        QTest::addColumn<QString>("table");
        QTest::addColumn<int>("spoilt"); // statements behind the first that fails
        QTest::newRow("days") << u"search_days"_s << 2;
        QTest::newRow("rows") << u"search_rows"_s << 1;
        QTest::newRow("countries") << u"country_codes"_s << 0;
    }
    void missingTable()
    {
        QFETCH(const QString, table);
        QFETCH(const int, spoilt);
        run(u"ALTER TABLE tarn.%1 RENAME TO away"_s.arg(table));
        expectSqlWarning(u"relation \"tarn.%1\" does not exist"_s.arg(table));
        for (int i = 0; i < spoilt; ++i)
            expectSpoilt();
        failsToStore(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        run(u"ALTER TABLE tarn.away RENAME TO %1"_s.arg(table));
        QCOMPARE(days(), u"NULL"_s);
        QCOMPARE(rows(), u"NULL"_s);
    }

    void refusedCommitIsNoSuccess()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        run(u"CREATE FUNCTION public.refuse() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN RAISE ''not today''; END'"_s);
        run(u"CREATE CONSTRAINT TRIGGER refuse AFTER INSERT ON tarn.search_rows DEFERRABLE INITIALLY "
            u"DEFERRED "
            "FOR EACH ROW EXECUTE FUNCTION public.refuse()"_s);
        expectSqlWarning(u"not today"_s);
        failsToStore(document({row({u"2024-10-10"_s}, 5)}, {detail(u"2024-10-10"_s)}));
        QCOMPARE(days(), u"1 google 2024-10-10 1 10 2.5"_s);
        QCOMPARE(rows(), u"1 google 2024-10-10 red shoes /shoes DE mobile 1 10 2.5"_s);
        // The next import stands on its own again.
        QCOMPARE(import(document({row({u"2024-10-11"_s})}, {})),
                 u"1 days (2024-10-11 to 2024-10-11), 0 detail rows"_s);
        QVERIFY(m_ok);
    }

    void withoutATransactionNothingIsDeleted()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        db::session().close();
        QTest::ignoreMessage(QtWarningMsg, "QPSQLDriver::beginTransaction: Database not open");
        expectSqlWarning(u""_s);
        failsToStore(document({row({u"2024-10-10"_s}, 5)}, {}));
        QCOMPARE(test::value(m_session.other(), u"SELECT clicks FROM tarn.search_days"_s), u"1"_s);
    }

    void lostSessionIsNoSuccess()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        const QSqlDatabase other = m_session.other();
        run(other, u"SELECT pg_terminate_backend(%1)"_s.arg(scalar(u"SELECT pg_backend_pid()"_s)));
        QString message;
        const QStringList messages =
            test::messagesOf([&] { message = import(document({row({u"2024-10-10"_s}, 5)}, {})); });
        QCOMPARE(message, u"database error while storing"_s);
        QVERIFY(!m_ok);
        // The driver's own remarks come as well, but none for each statement.
        QCOMPARE(messages.filter(u"sql: "_s).size(), 1);
        QVERIFY2(messages.size() <= 4, qPrintable(messages.join(u" | "_s)));
        QCOMPARE(test::value(other, u"SELECT clicks FROM tarn.search_days"_s), u"1"_s);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
    }

    void sessionLostAtTheDeletionsCostsOneLine()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        run(u"CREATE FUNCTION die() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
            "PERFORM pg_terminate_backend(pg_backend_pid()); RETURN OLD; END $$"_s);
        run(u"CREATE TRIGGER die BEFORE DELETE ON tarn.search_days FOR EACH ROW EXECUTE FUNCTION die()"_s);
        QString message;
        const QStringList messages =
            test::messagesOf([&] { message = import(document({row({u"2024-10-10"_s}, 5)}, {})); });
        QCOMPARE(message, u"database error while storing"_s);
        QCOMPARE(messages.filter(u"sql: "_s).size(), 1);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
    }
};

QTEST_GUILESS_MAIN(tst_SearchImport)
#include "tst_SearchImport.moc"
