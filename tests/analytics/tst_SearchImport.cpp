#include "analytics/SearchImportTest.h"

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

namespace {

/// One day of totals and one detail row, of which @p keys are the members of "keys" behind the day.
QJsonObject oneRow(const QByteArray& keys, const QByteArray& figures = "\"clicks\":1")
{
    // No raw strings in this file: Qt's meta-object compiler finds no class behind one with brackets in it.
    return parsed("{\"totals\":[{\"keys\":[\"2024-10-10\"]}],\"rows\":[{\"keys\":[\"2024-10-10\"," + keys
                  + "]," + figures + "}]}");
}

} // namespace

/// What is stored of a document.
class tst_SearchImport : public SearchImportTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

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
};

QTEST_GUILESS_MAIN(tst_SearchImport)
#include "tst_SearchImport.moc"
