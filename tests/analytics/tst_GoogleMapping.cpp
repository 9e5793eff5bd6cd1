#include "analytics/GoogleFixture.h"
#include "common/Db.h"

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// Which property of Google's list each site gets.
class tst_GoogleMapping : public GoogleFixture
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void cleanupTestCase() { endProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void mapsProperties_data()
    {
        QTest::addColumn<QByteArray>("entries"); // of the list
        QTest::addColumn<QStringList>("hosts");
        QTest::addColumn<QString>("mapped");
        const auto entry = [](const QByteArray& property, const QByteArray& level = "siteOwner") {
            return "{'siteUrl':'" + property + "','permissionLevel':'" + level + "'}";
        };
        const QByteArray domain = entry("sc-domain:d.example");
        const QByteArray prefix = entry("https://www.d.example/");
        const QStringList both = {u"d.example"_s, u"www.d.example"_s};
        const auto toDomain =
            u"d.example google sc-domain:d.example|www.d.example google sc-domain:d.example"_s;
        QTest::newRow("domain-after-a-prefix") << prefix + ',' + domain << both << toDomain;
        QTest::newRow("domain-before-a-prefix") << domain + ',' + prefix << both << toDomain;
        QTest::newRow("first-prefix")
            << entry("http://d.example/") + ',' + entry("https://d.example/a/") << QStringList{u"d.example"_s}
            << u"d.example google http://d.example/"_s;
        QTest::newRow("last-domain") << entry("sc-domain:d.example") + ',' + entry("sc-domain:www.d.example")
                                     << QStringList{u"d.example"_s}
                                     << u"d.example google sc-domain:www.d.example"_s;
        QTest::newRow("upper-case-domain") << entry("sc-domain:D.Example") << QStringList{u"d.example"_s}
                                           << u"d.example google sc-domain:D.Example"_s;
        QTest::newRow("upper-case-url") << entry("HTTPS://WWW.D.Example/A/") << QStringList{u"d.example"_s}
                                        << u"d.example google HTTPS://WWW.D.Example/A/"_s;
        QTest::newRow("upper-case-scheme-of-a-domain") // which is no domain property
            << entry("SC-DOMAIN:d.example") << QStringList{u"d.example"_s} << u""_s;
        QTest::newRow("www-in-a-domain") << entry("sc-domain:WWW.d.example") << both
                                         << u"d.example google sc-domain:WWW.d.example|www.d.example google "
                                            "sc-domain:WWW.d.example"_s;
        QTest::newRow("www-once-only") << entry("https://www.www.d.example/") << both << u""_s;
        QTest::newRow("subdomain") << domain << QStringList{u"blog.d.example"_s} << u""_s;
        QTest::newRow("upper-case-www-of-a-site") << domain << QStringList{u"WWW.d.example"_s} << u""_s;
        QTest::newRow("upper-case-site") << domain << QStringList{u"D.example"_s} << u""_s;
        QTest::newRow("unverified") << entry("sc-domain:d.example", "siteUnverifiedUser") << both << u""_s;
        QTest::newRow("unverified-beside-another")
            << prefix + ',' + entry("sc-domain:d.example", "siteUnverifiedUser")
            << QStringList{u"d.example"_s} << u"d.example google https://www.d.example/"_s;
        QTest::newRow("unverified-in-other-letters")
            << entry("sc-domain:d.example", "siteunverifieduser") << QStringList{u"d.example"_s}
            << u"d.example google sc-domain:d.example"_s;
        QTest::newRow("restricted") << entry("sc-domain:d.example", "siteRestrictedUser")
                                    << QStringList{u"d.example"_s}
                                    << u"d.example google sc-domain:d.example"_s;
        QTest::newRow("full") << entry("sc-domain:d.example", "siteFullUser") << QStringList{u"d.example"_s}
                              << u"d.example google sc-domain:d.example"_s;
        QTest::newRow("no-level") << QByteArray("{'siteUrl':'sc-domain:d.example'}")
                                  << QStringList{u"d.example"_s} << u"d.example google sc-domain:d.example"_s;
        QTest::newRow("port-and-user") << entry("https://me@d.example:8443/") << QStringList{u"d.example"_s}
                                       << u"d.example google https://me@d.example:8443/"_s;
        QTest::newRow("host-in-unicode")
            << entry("https://www.xn--bcher-kva.example.org/")
            << QStringList{u"bücher.example.org"_s, u"xn--bcher-kva.example.org"_s}
            << u"bücher.example.org google https://www.xn--bcher-kva.example.org/"_s;
        QTest::newRow("host-in-unicode-under-any-top-level")
            << entry("https://xn--bcher-kva.eu/") + ',' + entry("https://www.xn--bcher-kva.app/")
            << QStringList{u"bücher.eu"_s, u"bücher.app"_s}
            << u"bücher.app google https://www.xn--bcher-kva.app/|bücher.eu google https://xn--bcher-kva.eu/"_s;
        QTest::newRow("domain-property-in-ascii")
            << entry("sc-domain:xn--bcher-kva.eu") << QStringList{u"www.bücher.eu"_s, u"xn--bcher-kva.eu"_s}
            << u"www.bücher.eu google sc-domain:xn--bcher-kva.eu|xn--bcher-kva.eu google "
               "sc-domain:xn--bcher-kva.eu"_s;
        QTest::newRow("domain-property-in-unicode")
            << entry("sc-domain:bücher.eu") << QStringList{u"bücher.eu"_s}
            << u"bücher.eu google sc-domain:bücher.eu"_s;
        QTest::newRow("host-longer-than-a-name")
            << entry("https://" + QByteArray("a.").repeated(200) + "example/")
            << QStringList{QString::fromLatin1(QByteArray("a.").repeated(200) + "example")} << u""_s;
        QTest::newRow("nul-in-a-property")
            << entry("https://d.example/\\u0000a/") << QStringList{u"d.example"_s}
            << u"d.example google https://d.example/a/"_s;
        QTest::newRow("odd-entries")
            << "null,17,'sc-domain:d.example',[],{},{'siteUrl':5},{'siteUrl':null},{'siteUrl':''}," + prefix
            << QStringList{u"d.example"_s} << u"d.example google https://www.d.example/"_s;
        QTest::newRow("empty-list") << QByteArray() << both << u""_s;
    }
    void mapsProperties()
    {
        QFETCH(const QByteArray, entries);
        QFETCH(const QStringList, hosts);
        QFETCH(const QString, mapped);
        // What the table refuses can still stand in a database that is older than its check. Gone after the
        // first row.
        if (scalar(u"SELECT count(*) FROM pg_constraint WHERE conname = 'sites_host_is_a_lower_case_name'"_s)
            != u"0"_s)
            run(u"ALTER TABLE tarn.sites DROP CONSTRAINT sites_host_is_a_lower_case_name"_s);
        for (int i = 0; i < hosts.size(); ++i)
            haveSite(i + 1, hosts.at(i));
        m_hosts.expect(exchangeRequest(),
                       json("{'access_token':'ya29.access','refresh_token':'1//refresh+&=%'}"));
        m_hosts.expect(sitesRequest(), json("{'siteEntry':[" + entries + "]}"));
        QCOMPARE(connectNow(), u""_s);
        QCOMPARE(mapping(), mapped);
    }

    void oddSitesLists_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("no-member") << QByteArray("{}");
        QTest::newRow("null") << QByteArray("{'siteEntry':null}");
        QTest::newRow("object") << QByteArray("{'siteEntry':{'siteUrl':'sc-domain:a.example.org'}}");
        QTest::newRow("array") << QByteArray("[{'siteUrl':'sc-domain:a.example.org'}]");
        QTest::newRow("broken-json") << QByteArray("{'siteEntry':[{'siteUrl':'sc-domain:a.example.org'}");
        QTest::newRow("empty") << QByteArray();
    }
    void oddSitesLists()
    {
        QFETCH(const QByteArray, body);
        haveConnection();
        haveSite(1, u"a.example.org"_s);
        m_hosts.expect(refreshRequest(), granted());
        m_hosts.expect(sitesRequest(), json(body));
        QCOMPARE(sync(), u"no Search Console property matches a site here"_s);
        QCOMPARE(mapping(), u""_s);
    }

    void mappingIsOnlyEverAddedTo()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"https://a.example.org/old/"_s);
        haveSite(2, u"b.example.org"_s, u"https://b.example.org/old/"_s);
        run(u"INSERT INTO tarn.search_properties VALUES (1, 'bing', 'theirs')"_s);
        m_hosts.expect(refreshRequest(), granted());
        m_hosts.expect(sitesRequest(), json("{'siteEntry':[{'siteUrl':'sc-domain:a.example.org'}]}"));
        m_hosts.answer([](const FakeHosts::Request&) { return json("{}"); });
        QCOMPARE(sync(), u"a.example.org: no new data; b.example.org: no new data"_s);
        QCOMPARE(mapping(), u"a.example.org bing theirs|a.example.org google sc-domain:a.example.org|"
                            "b.example.org google https://b.example.org/old/"_s);
    }

    void refusedMappingStopsNoOtherSite()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s);
        haveSite(2, u"b.example.org"_s);
        run(u"ALTER TABLE tarn.search_properties ADD CHECK (site_id <> 1)"_s);
        m_hosts.expect(refreshRequest(), granted());
        m_hosts.expect(sitesRequest(), json("{'siteEntry':[{'siteUrl':'sc-domain:a.example.org'},"
                                            "{'siteUrl':'sc-domain:b.example.org'}]}"));
        m_hosts.answer([](const FakeHosts::Request&) { return json("{}"); });
        expectSqlWarning(u"violates check constraint"_s);
        QCOMPARE(sync(), u"b.example.org: no new data"_s);
    }

    void sessionLostAmongTheSitesCostsOneLine()
    {
        haveConnection();
        QByteArrayList entries;
        for (int id = 1; id <= 200; ++id) {
            const QString host = u"site-%1.example.org"_s.arg(id);
            haveSite(id, host);
            entries.append("{'siteUrl':'sc-domain:" + host.toLatin1() + "'}");
        }
        run(u"CREATE FUNCTION die() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
            "IF NEW.site_id = 20 THEN PERFORM pg_terminate_backend(pg_backend_pid()); END IF; RETURN NEW; END $$"_s);
        run(u"CREATE TRIGGER die BEFORE INSERT ON tarn.search_properties FOR EACH ROW EXECUTE FUNCTION die()"_s);
        m_hosts.answer([&](const FakeHosts::Request& request) {
            return request.target == "/token" ? granted() : json("{'siteEntry':[" + entries.join(',') + "]}");
        });
        messagesToList();
        const QString result = analytics::google::sync(kClient);
        qInstallMessageHandler(collectMessages);
        QCOMPARE(result, u"the database was lost"_s);
        QCOMPARE(g_messages.filter(u"sql: "_s).size(), 1);
        QVERIFY2(g_messages.size() <= 4, qPrintable(g_messages.join(u" | "_s)));
        QVERIFY(db::ensure(false));
    }
};

QTEST_GUILESS_MAIN(tst_GoogleMapping)
#include "tst_GoogleMapping.moc"
