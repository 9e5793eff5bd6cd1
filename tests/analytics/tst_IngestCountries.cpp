#include "analytics/IngestTest.h"
#include "common/Db.h"
#include "support/Messages.h"

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

namespace {

/// PostgreSQL refuses what is no address.
const auto kBadAddress = u"invalid input syntax for type inet: \"\""_s;

} // namespace

/// Looking up the countries of addresses.
class tst_IngestCountries : public IngestTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void country_data()
    {
        QTest::addColumn<QString>("ip");
        QTest::addColumn<QString>("country");
        QTest::newRow("first-of-range") << u"192.0.2.0"_s << u"DE"_s;
        QTest::newRow("last-of-range") << u"192.0.2.127"_s << u"DE"_s;
        QTest::newRow("past-the-range") << u"192.0.2.128"_s << QString();
        QTest::newRow("before-all-ranges") << u"10.0.0.1"_s << QString();
        QTest::newRow("version-6") << u"2001:db8::1"_s << u"SE"_s;
        QTest::newRow("version-6-outside") << u"2001:db9::1"_s << QString();
    }
    void country()
    {
        QFETCH(const QString, ip);
        QFETCH(const QString, country);
        useCountries();
        QCOMPARE(m_ingest->country(ip), country);
        // Known now, the absence of a country too: no look-up any more.
        run(u"TRUNCATE tarn.geo_country"_s);
        QCOMPARE(m_ingest->country(ip), country);
        ingest({Line{.ip = ip.toLatin1()}.text()});
        QCOMPARE(onlyHit(u"country"_s), QStringList{country.isEmpty() ? u"NULL"_s : country});
    }

    void countriesAreForgottenPastTheirNumber()
    {
        useCountries();
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), u"DE"_s);
        run(u"TRUNCATE tarn.geo_country"_s);
        // What is stored does not matter here, and storing it would take most of the time.
        run(u"ALTER TABLE tarn.hits DISABLE TRIGGER mark_rollup_due"_s);
        run(u"DROP INDEX tarn.hits_site_at, tarn.hits_at"_s);
        QList<QByteArray> lines;
        for (int i = 1; i <= 200'000; ++i) {
            const QByteArray address = "10." + QByteArray::number(i >> 16) + '.'
                                       + QByteArray::number((i >> 8) & 255) + '.'
                                       + QByteArray::number(i & 255);
            lines.append(Line{.ip = address}.text());
        }
        QCOMPARE(ingest(lines).stored, 200'000);
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), u"DE"_s); // remembered beside the 200,000 others
        ingest({Line{.ip = "203.0.113.1"}.text()});
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), QString());
    }

    void noCountryTableNoLookUp()
    {
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), QString());
        QCOMPARE(m_ingest->country(u"not an address"_s), QString());
    }

    void aCountryTableThatCannotBeAskedIsNotUsed_data()
    {
        QTest::addColumn<QString>("instead"); // of the table
        QTest::addColumn<QString>("warning");
        QTest::newRow("missing") << QString() << QString();
        QTest::newRow("failing") << u"CREATE VIEW tarn.geo_country AS SELECT * FROM tarn.away "
                                    "WHERE 1 / (masklen(ip_from) - 32) = 0"_s
                                 << u"division by zero"_s;
    }
    void aCountryTableThatCannotBeAskedIsNotUsed()
    {
        QFETCH(const QString, instead);
        QFETCH(const QString, warning);
        run(u"INSERT INTO tarn.geo_country VALUES ('192.0.2.0', '192.0.2.127', 'DE')"_s);
        run(u"ALTER TABLE tarn.geo_country RENAME TO away"_s);
        if (!instead.isEmpty()) {
            run(instead);
            expectSqlWarning(warning);
        }
        startAnew();
        ingest({Line{.ip = "192.0.2.1"}.text()});
        QCOMPARE(ofEachHit(u"coalesce(country, 'none')"_s), u"none"_s);
    }

    void aCountryTableThatIsNotUsedIsSaid()
    {
        const auto said = [this] { return messagesOf([this] { m_ingest->noteCountryLoad(); }); };
        QVERIFY(m_ingest->init());
        QCOMPARE(said(), QStringList(u"collect: geoip: hits get countries from the next start on; restart "
                                     "tarn-collect"_s));
        run(u"INSERT INTO tarn.geo_country VALUES ('192.0.2.0', '192.0.2.255', 'DE')"_s);
        QVERIFY(m_ingest->init());
        QCOMPARE(said(), QStringList());
    }

    void countryOfABadAddressOutsideACall()
    {
        useCountries();
        expectSqlWarning(kBadAddress);
        QCOMPARE(m_ingest->country({}), QString());
        QCOMPARE(m_ingest->country({}), QString());
        QCOMPARE(ingest({Line{.ip = "host.example.net"}.text()}).stored, 1);
    }

    void hostNamesCostOneWarningAndNoNeighbour()
    {
        useCountries();
        expectSqlWarning(kBadAddress);
        const auto result =
            ingest({lineAt("10:00:00"), Line{.ip = "host.example.net"}.text(), lineAt("10:00:01"),
                    Line{.ip = "other.example.net"}.text(), lineAt("10:00:02")});
        QCOMPARE(result.stored, 5);
        QCOMPARE(hitCount(), u"5"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits WHERE ip IS NULL AND country IS NULL"_s), u"2"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits WHERE country = 'DE'"_s), u"3"_s);
        QCOMPARE(scalar(u"SELECT count(DISTINCT visitor) FROM tarn.hits"_s), u"3"_s);
        ingest({Line{.ip = "third.example.net"}.text()});
        QCOMPARE(hitCount(), u"6"_s);
    }

    void failedLookUpsCostNoHitOfTheBatchesAround()
    {
        useCountries();
        run(u"ALTER TABLE tarn.geo_country RENAME TO away"_s);
        QList<QByteArray> lines;
        for (int i = 0; i < 401; ++i) {
            lines.append(
                Line{.ip = i % 100 == 0 ? "192.0.2." + QByteArray::number(i / 100) : "192.0.2.0"}.text());
        }
        for (int i = 0; i < 5; ++i)
            expectSqlWarning(u"tarn.geo_country"_s);
        QCOMPARE(ingest(lines).stored, 401);
        QCOMPARE(hitCount(), u"401"_s);
    }

    void aSessionLostDuringALookUpSaysNothingOfTheAddress()
    {
        run(u"INSERT INTO tarn.geo_country VALUES ('192.0.2.0', '192.0.2.127', 'DE')"_s);
        startAnew();
        ProductSession::endBackend(m_session.other());
        messagesOf([this] { QCOMPARE(m_ingest->country(u"192.0.2.1"_s), QString()); });
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), u"DE"_s);
    }

    void sessionLostInALookUpKeepsNothing_data()
    {
        QTest::addColumn<int>("lines");
        QTest::addColumn<QString>("last"); // the address whose look-up ends the session
        QTest::newRow("alone") << 1 << u"192.0.2.1"_s;
        QTest::newRow("among-many") << 50 << u"192.0.2.25"_s;
        QTest::newRow("behind-a-batch") << 240 << u"192.0.2.230"_s;
    }
    void sessionLostInALookUpKeepsNothing()
    {
        QFETCH(const int, lines);
        QFETCH(const QString, last);
        useCountries();
        run(u"ALTER TABLE tarn.geo_country RENAME TO away"_s);
        run(u"CREATE VIEW tarn.geo_country AS SELECT * FROM tarn.away UNION ALL SELECT '%1'::inet, "
            u"'%1'::inet, "
            "pg_terminate_backend(pg_backend_pid(), 5000)::text"_s.arg(last));
        QList<QByteArray> batch;
        for (int i = 1; i <= lines; ++i)
            batch.append(Line{.ip = "192.0.2." + QByteArray::number(i)}.text());
        Ingest::Result result;
        const QStringList messages = messagesOf([&] { result = ingest(batch); });
        QVERIFY2(!messages.isEmpty() && messages.size() <= 5, qPrintable(messages.join(u" | "_s)));
        QCOMPARE(result.lines, lines);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
        QCOMPARE(hitCount(), u"0"_s);
        run(u"DROP VIEW tarn.geo_country"_s);
        run(u"ALTER TABLE tarn.away RENAME TO geo_country"_s);
        QCOMPARE(ingest(batch).stored, lines);
        QCOMPARE(hitCount(), QString::number(lines));
    }
};

QTEST_GUILESS_MAIN(tst_IngestCountries)
#include "tst_IngestCountries.moc"
