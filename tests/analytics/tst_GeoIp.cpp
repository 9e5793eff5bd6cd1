#include "analytics/CountryFileTest.h"
#include "common/Db.h"
#include "support/GzipProgram.h"

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using analytics::geoIpIsStale;
using analytics::parseCountryRange;

/// When the table is old, and which files are loaded.
class tst_GeoIp : public CountryFileTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void cleanupTestCase() { endProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void stale_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<QDate>("today");
        QTest::addColumn<bool>("stale");
        QTest::newRow("month-before") << u"2024-05"_s << QDate(2024, 6, 15) << true;
        QTest::newRow("this-month") << u"2024-06"_s << QDate(2024, 6, 15) << false;
        QTest::newRow("first-day") << u"2024-06"_s << QDate(2024, 6, 1) << false;
        QTest::newRow("last-day") << u"2024-06"_s << QDate(2024, 6, 30) << false;
        QTest::newRow("month-of-yesterday") << u"2024-06"_s << QDate(2024, 7, 1) << true;
        QTest::newRow("year-of-yesterday") << u"2024-12"_s << QDate(2025, 1, 1) << true;
        QTest::newRow("same-month-last-year") << u"2023-06"_s << QDate(2024, 6, 15) << true;
        QTest::newRow("clock-set-back") << u"2024-07"_s << QDate(2024, 6, 30) << true;
        QTest::newRow("month-without-zero") << u"2024-6"_s << QDate(2024, 6, 15) << true;
        QTest::newRow("empty") << QString() << QDate(2024, 6, 15) << true;
    }
    void stale()
    {
        QFETCH(const QString, value);
        QFETCH(const QDate, today);
        QFETCH(const bool, stale);
        run(u"UPDATE tarn.settings SET value = '%1' WHERE key = 'geoip_month'"_s.arg(value));
        QCOMPARE(geoIpIsStale(today), stale);
    }

    void staleWithoutTheMonth()
    {
        run(u"DELETE FROM tarn.settings WHERE key = 'geoip_month'"_s);
        QVERIFY(geoIpIsStale());
        run(u"DROP TABLE tarn.settings CASCADE"_s);
        QVERIFY(geoIpIsStale());
    }

    void staleByTheClock()
    {
        QVERIFY(geoIpIsStale());
        bool ok = false;
        const QString path = makeFile(u"ranges.csv"_s, text(lines(1000)));
        QTest::ignoreMessage(QtInfoMsg, qPrintable(u"collect: loading countries from "_s + path));
        const QString before = QDate::currentDate().toString(u"yyyy-MM"_s);
        QCOMPARE(updateGeoIp(path, &ok), loaded(1000));
        QVERIFY(ok);
        if (before != QDate::currentDate().toString(u"yyyy-MM"_s))
            return; // the month has ended meanwhile
        QCOMPARE(month(), before);
        QVERIFY(!geoIpIsStale());
    }

    void parse_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QByteArrayList>("fields"); // none when the line is skipped
        const QByteArrayList usual = {"1.0.0.0", "1.0.0.255", "AU"};
        QTest::newRow("version-4") << QByteArray("1.0.0.0,1.0.0.255,AU") << usual;
        QTest::newRow("version-6") << QByteArray("2001:db8::,2001:db8::ffff,SE")
                                   << QByteArrayList{"2001:db8::", "2001:db8::ffff", "SE"};
        QTest::newRow("carriage-return") << QByteArray("1.0.0.0,1.0.0.255,AU\r") << usual;
        QTest::newRow("spaces-around") << QByteArray(" \t1.0.0.0,1.0.0.255,AU  ") << usual;
        QTest::newRow("more-fields") << QByteArray("1.0.0.0,1.0.0.255,AU,Oceania,x") << usual;
        QTest::newRow("empty-fourth-field") << QByteArray("1.0.0.0,1.0.0.255,AU,") << usual;
        QTest::newRow("lower-case") << QByteArray("1.0.0.0,1.0.0.255,au")
                                    << QByteArrayList{"1.0.0.0", "1.0.0.255", "au"};
        QTest::newRow("no-addresses") << QByteArray("a,b,cd") << QByteArrayList{"a", "b", "cd"};
        QTest::newRow("empty-addresses") << QByteArray(",,DE") << QByteArrayList{"", "", "DE"};
        QTest::newRow("unknown-country") << QByteArray("1.0.0.0,1.0.0.255,ZZ") << QByteArrayList();
        QTest::newRow("one-character") << QByteArray("1.0.0.0,1.0.0.255,A") << QByteArrayList();
        QTest::newRow("three-characters") << QByteArray("1.0.0.0,1.0.0.255,AUS") << QByteArrayList();
        QTest::newRow("quoted") << QByteArray(R"("1.0.0.0","1.0.0.255","AU")") << QByteArrayList();
        QTest::newRow("no-country") << QByteArray("1.0.0.0,1.0.0.255,") << QByteArrayList();
        QTest::newRow("no-country-but-more") << QByteArray("1.0.0.0,1.0.0.255,,AU") << QByteArrayList();
        QTest::newRow("two-fields") << QByteArray("1.0.0.0,AU") << QByteArrayList();
        QTest::newRow("one-field") << QByteArray("AU") << QByteArrayList();
        QTest::newRow("semicolons") << QByteArray("1.0.0.0;1.0.0.255;AU") << QByteArrayList();
        QTest::newRow("empty") << QByteArray() << QByteArrayList();
        QTest::newRow("blank") << QByteArray(" \r") << QByteArrayList();
        QTest::newRow("commas-only") << QByteArray(",,") << QByteArrayList();
        const QByteArray range = "1.0.0.0,1.0.0.255,AU,";
        QTest::newRow("longest-line")
            << range.leftJustified(1'024, 'x') << QByteArrayList{"1.0.0.0", "1.0.0.255", "AU"};
        QTest::newRow("longest-line-plus-one") << range.leftJustified(1'025, 'x') << QByteArrayList();
        QTest::newRow("nul-in-address") << QByteArray("1.0\0.0,1.0.0.255,AU", 19)
                                        << QByteArrayList{QByteArray("1.0\0.0", 6), "1.0.0.255", "AU"};
    }
    void parse()
    {
        QFETCH(const QByteArray, line);
        QFETCH(const QByteArrayList, fields);
        QByteArrayList found;
        if (const auto range = parseCountryRange(line))
            found = {range->from.toByteArray(), range->to.toByteArray(), range->country.toByteArray()};
        QCOMPARE(found, fields);
    }

    void insertStatement()
    {
        QCOMPARE(analytics::rangeInsertStatement(1),
                 u"INSERT INTO tarn.geo_country (ip_from, ip_to, country) VALUES "
                 "(CAST(? AS inet), CAST(? AS inet), ?) ON CONFLICT DO NOTHING"_s);
        QCOMPARE(analytics::rangeInsertStatement(2),
                 u"INSERT INTO tarn.geo_country (ip_from, ip_to, country) VALUES "
                 "(CAST(? AS inet), CAST(? AS inet), ?), (CAST(? AS inet), CAST(? AS inet), ?) "
                 "ON CONFLICT DO NOTHING"_s);
        QCOMPARE(analytics::rangeInsertStatement(1000).count(u'?'), 3000);
    }

    void goodFile_data()
    {
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<int>("total"); // as told
        QTest::addColumn<int>("stored");
        const QList<QByteArray> least = lines(1000);
        QTest::newRow("least-lines") << text(least) << 1000 << 1000;
        QTest::newRow("least-lines-without-line-feed-at-the-end") << text(least).chopped(1) << 1000 << 1000;
        QTest::newRow("chunk-plus-one") << text(lines(1001)) << 1001 << 1001;
        QTest::newRow("two-chunks") << text(lines(2000)) << 2000 << 2000;
        QTest::newRow("two-chunks-plus-some") << text(lines(2345)) << 2345 << 2345;
        QTest::newRow("windows-line-ends") << least.join("\r\n") + "\r\n" << 1000 << 1000;
        QTest::newRow("empty-line-at-the-end") << text(least) + '\n' << 1000 << 1000;
        QTest::newRow("one-range-and-999-line-ends") << line(0) + '\n' + QByteArray(999, '\n') << 1 << 1;
        QTest::newRow("the-only-range-is-the-last") << QByteArray(1000, '\n') + line(0) << 1 << 1;
        QTest::newRow("unknown-country") << textWith("9.0.0.0,9.0.0.255,ZZ") << 1199 << 1199;
        QTest::newRow("country-of-one-character") << textWith("9.0.0.0,9.0.0.255,A") << 1199 << 1199;
        QTest::newRow("country-of-three-characters") << textWith("9.0.0.0,9.0.0.255,ABC") << 1199 << 1199;
        QTest::newRow("two-fields") << textWith("9.0.0.0,9.0.0.255") << 1199 << 1199;
        QTest::newRow("more-fields") << textWith("9.0.0.0,9.0.0.255,DE,x,y") << 1200 << 1200;
        QTest::newRow("header") << textWith("ip_from,ip_to,country_code", 0) << 1199 << 1199;
        QTest::newRow("skipped-line-of-nul") << textWith(QByteArray("\0\0", 2)) << 1199 << 1199;
        QTest::newRow("same-range-twice") << textWith(line(0)) << 1200 << 1199;
        QTest::newRow("same-range-in-two-chunks") << textWith(line(0), 1100) << 1200 << 1199;
        QTest::newRow("same-start-other-country") << textWith("1.0.0.0,1.0.0.9,NZ") << 1200 << 1199;
        // One full statement and the rest, though no chunk of the file has 1,000 ranges.
        QList<QByteArray> scattered = lines(2400);
        for (qsizetype i = 0; i < scattered.size(); i += 2)
            scattered[i] = "9.0.0.0,9.0.0.255,ZZ";
        QTest::newRow("scattered-unknown-countries") << text(scattered) << 1200 << 1200;
    }
    void goodFile()
    {
        QFETCH(const QByteArray, contents);
        QFETCH(const int, total);
        QFETCH(const int, stored);
        QCOMPARE(load(contents), loaded(total));
        QCOMPARE(ranges(), QString::number(stored));
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.geo_country WHERE country = 'XA'"_s), u"0"_s);
        QCOMPARE(month(), u"2024-05"_s);
        QVERIFY(!geoIpIsStale(kDay));
        QVERIFY(geoIpIsStale(kDay.addDays(1)));
    }

    void compressedFile()
    {
        QCOMPARE(load(gzip(text(lines(1500))), u"ranges.csv.gz"_s), loaded(1500));
        QCOMPARE(ranges(), u"1500"_s);
    }

    void addressesAreStoredWhole()
    {
        QList<QByteArray> all = lines(1000);
        all[0] = "::ffff:0:0,::ffff:255.255.255.255,XB";
        all[1] = "255.255.255.255,255.255.255.255,XC";
        all[2] = "::,::,XD";
        QCOMPARE(load(text(all)), loaded(1000));
        QCOMPARE(scalar(u"SELECT string_agg(concat_ws(' ', ip_from, ip_to, country), ', ' ORDER BY country) "
                        "FROM tarn.geo_country WHERE country LIKE 'X%'"_s),
                 u"::ffff:0.0.0.0 ::ffff:255.255.255.255 XB, 255.255.255.255 255.255.255.255 XC, :: :: XD"_s);
    }

    void theMonthIsAddedWhenThereIsNone()
    {
        run(u"DELETE FROM tarn.settings WHERE key = 'geoip_month'"_s);
        QCOMPARE(load(text(lines(1000))), loaded(1000));
        QCOMPARE(month(), u"2024-05"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.settings"_s), u"2"_s); // with the visitor secret
    }

    void thePrivilegesOfTheCollectorSuffice()
    {
        const QString name = db::session().databaseName();
        run(u"CREATE ROLE loader LOGIN"_s);
        QCOMPARE(m_server.runFile(name, test::schemaFile(u"grants.sql"_s), {u"-v"_s, u"collector=loader"_s}),
                 QString());
        run(u"SET ROLE loader"_s);
        QCOMPARE(load(text(lines(1000))), loaded(1000));
        run(u"RESET ROLE"_s);
        QCOMPARE(ranges(), u"1000"_s);
    }

    void badFile_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("contents");
        const QByteArray good = text(lines(5000));
        const QByteArray packed = gzip(good);
        const auto plain = u"ranges.csv"_s;
        const auto compressed = u"ranges.csv.gz"_s;
        QTest::newRow("empty") << plain << QByteArray();
        QTest::newRow("empty-gz") << compressed << QByteArray();
        QTest::newRow("one-line") << plain << line(0);
        QTest::newRow("999-lines") << plain << text(lines(999));
        QTest::newRow("999-lines-without-line-feed-at-the-end") << plain << text(lines(999)).chopped(1);
        QTest::newRow("999-lines-windows") << plain << lines(999).join("\r\n") + "\r\n";
        QTest::newRow("999-lines-compressed") << compressed << gzip(text(lines(999)));
        QTest::newRow("old-apple-line-ends") << plain << lines(5000).join('\r');
        QTest::newRow("plain-text") << plain
                                    << QByteArray("<p>Sorry, this file has moved.</p>\n").repeated(2000);
        QTest::newRow("line-feeds-only") << plain << QByteArray(2000, '\n');
        QTest::newRow("unknown-countries-only")
            << plain << QByteArray("1.0.0.0,1.0.0.255,ZZ\n").repeated(2000);
        QTest::newRow("quoted-fields")
            << plain << QByteArray("\"1.0.0.0\",\"1.0.0.255\",\"AU\"\n").repeated(2000);
        QTest::newRow("compressed-under-a-plain-name") << plain << packed;
        QTest::newRow("plain-under-a-compressed-name") << compressed << good;
        QTest::newRow("half-a-gz") << compressed << packed.first(packed.size() / 2);
        QTest::newRow("gz-without-its-last-byte") << compressed << packed.chopped(1);
        QTest::newRow("gz-without-its-trailer") << compressed << packed.chopped(8);
        QByteArray corrupt = packed;
        corrupt.replace(corrupt.size() / 2, 64, QByteArray(64, '\xff'));
        QTest::newRow("corrupt-gz") << compressed << corrupt;
        QByteArray wrongSum = packed;
        wrongSum[wrongSum.size() - 8] = static_cast<char>(~wrongSum.at(wrongSum.size() - 8));
        QTest::newRow("gz-with-a-wrong-check-sum") << compressed << wrongSum;
        QTest::newRow("gz-in-a-gz") << compressed << gzip(packed);
    }
    void badFile()
    {
        QFETCH(const QString, name);
        QFETCH(const QByteArray, contents);
        run(u"CREATE SEQUENCE touched"_s); // which no rolling back sets back
        addTrigger(u"TRIGGER test BEFORE TRUNCATE"_s, u"geo_country"_s, u"PERFORM nextval('touched')"_s);
        QCOMPARE(load(contents, name), kNoCountryFile);
        QVERIFY(isAsBefore());
        // Not by rolling back: the table was not touched, so that no reader had to wait.
        QCOMPARE(scalar(u"SELECT is_called FROM touched"_s), u"false"_s);
    }

    void unreadableFile_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("missing") << m_folder.filePath(u"missing.csv"_s);
        QTest::newRow("missing-gz") << m_folder.filePath(u"missing.csv.gz"_s);
        QTest::newRow("folder") << m_folder.path();
    }
    void unreadableFile()
    {
        QFETCH(const QString, path);
        QCOMPARE(loadFile(path), kNoCountryFile);
        QVERIFY(isAsBefore());
    }
};

QTEST_GUILESS_MAIN(tst_GeoIp)
#include "tst_GeoIp.moc"
