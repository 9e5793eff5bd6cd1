#include "analytics/GoogleFixture.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using Delivery = FakeHosts::Delivery;

/// The client of the settings, the consent screen, and a connection that is made and ended.
class tst_GoogleConnecting : public GoogleFixture
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void cleanupTestCase() { endProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void configured()
    {
        QVERIFY((Client{u"id"_s, u"secret"_s, {}}.configured()));
        QVERIFY((!Client{u"id"_s, {}, u"uri"_s}.configured()));
        QVERIFY((!Client{{}, u"secret"_s, u"uri"_s}.configured()));
        QVERIFY(!Client().configured());
    }

    void clientFrom_data()
    {
        QTest::addColumn<QByteArray>("ini");
        QTest::addColumn<QStringList>("client"); // id, secret, redirect address
        const auto local = u"http://localhost:8095/oauth/google/callback"_s;
        QTest::newRow("nothing") << QByteArray() << QStringList{u""_s, u""_s, local};
        QTest::newRow("all") << QByteArray("[google]\nclient_id=17.apps.example\nclient_secret=GOCSPX-x\n"
                                           "[web]\npublic_url=https://panel.example.org\n")
                             << QStringList{u"17.apps.example"_s, u"GOCSPX-x"_s,
                                            u"https://panel.example.org/oauth/google/callback"_s};
        QTest::newRow("spaces-around")
            << QByteArray("[google]\nclient_id=\" \\t17 \"\nclient_secret=\" s \\n\"\n")
            << QStringList{u"17"_s, u"s"_s, local};
        QTest::newRow("only-spaces") << QByteArray("[google]\nclient_id=\"  \"\nclient_secret=\" \"\n")
                                     << QStringList{u""_s, u""_s, local};
        QTest::newRow("slash-at-the-end")
            << QByteArray("[web]\npublic_url=https://panel.example.org/\n")
            << QStringList{u""_s, u""_s, u"https://panel.example.org//oauth/google/callback"_s};
        QTest::newRow("address-with-spaces")
            << QByteArray("[web]\npublic_url=\" https://panel.example.org \"\n")
            << QStringList{u""_s, u""_s, u" https://panel.example.org /oauth/google/callback"_s};
        QTest::newRow("empty-address")
            << QByteArray("[web]\npublic_url=\n") << QStringList{u""_s, u""_s, u"/oauth/google/callback"_s};
    }
    void clientFrom()
    {
        QFETCH(const QByteArray, ini);
        QFETCH(const QStringList, client);
        QFile file(m_folder.filePath(u"client.ini"_s));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(ini) == ini.size());
        file.close();
        const Client read = analytics::google::clientFrom(QSettings(file.fileName(), QSettings::IniFormat));
        QCOMPARE(QStringList({read.id, read.secret, read.redirectUri}), client);
    }

    void authUrl_data()
    {
        QTest::addColumn<QString>("state");
        QTest::addColumn<QString>("encoded");
        QTest::newRow("plain") << u"abc-._~09"_s << u"abc-._~09"_s;
        QTest::newRow("empty") << u""_s << u""_s;
        QTest::newRow("plus-and-space") << u"a+b c"_s << u"a%2Bb%20c"_s;
        QTest::newRow("percent") << u"100%25%"_s << u"100%2525%25"_s;
        QTest::newRow("separators") << u"a&b=c#d?e/f:g;h"_s << u"a%26b%3Dc%23d%3Fe%2Ff%3Ag%3Bh"_s;
        QTest::newRow("quotes") << u"\"'<>\\"_s << u"%22%27%3C%3E%5C"_s;
        QTest::newRow("non-ascii") << u"ü\U0001F600"_s << u"%C3%BC%F0%9F%98%80"_s;
        QTest::newRow("line-end") << u"a\r\nb"_s << u"a%0D%0Ab"_s;
    }
    void authUrl()
    {
        QFETCH(const QString, state);
        QFETCH(const QString, encoded);
        const QString url = analytics::google::authUrl(kClient, state);
        QCOMPARE(url, u"https://accounts.google.com/o/oauth2/v2/auth?client_id=17.apps.example&redirect_uri="
                      "https%3A%2F%2Fpanel.example.org%2Foauth%2Fgoogle%2Fcallback&response_type=code&scope="
                      "openid%20email%20https%3A%2F%2Fwww.googleapis.com%2Fauth%2Fwebmasters.readonly&"
                      "access_type=offline&prompt=consent&state="_s
                          + encoded);
        QVERIFY(QUrl(url, QUrl::StrictMode).isValid());
    }

    void connects()
    {
        haveSite(1, u"a.example.org"_s);
        haveSite(2, u"b.example.org"_s, u"https://b.example.org/"_s);
        haveSite(3, u"c.example.org"_s);
        QVERIFY(m_hosts.expectFile(QStringLiteral(TARN_TEST_DATA "/google/connect.txt")));
        QCOMPARE(connectNow(), u""_s);
        QCOMPARE(account(u"concat_ws(' ', account_email, refresh_token, last_sync_at, last_result)"_s),
                 u"admin@example.org "_s + kRefresh);
        QCOMPARE(mapping(), u"a.example.org google https://www.a.example.org/|b.example.org google "
                            "sc-domain:b.example.org"_s);
        QCOMPARE(g_messages, QStringList());
    }

    void reconnectingReplacesTheConnection()
    {
        run(u"INSERT INTO tarn.engine_accounts VALUES ('google', 'old@example.org', 'old', '2024-01-01', "
            "'2024-02-02', 'old result'), ('bing', 'b', 'b', '2024-01-01', '2024-02-02', 'b')"_s);
        m_hosts.expect(exchangeRequest(),
                       json("{'access_token':'ya29.access','refresh_token':'1//refresh+&=%'}"));
        m_hosts.expect(sitesRequest(), noProperties());
        QCOMPARE(connectNow(), u""_s);
        QCOMPARE(account(u"concat_ws(' ', '<' || account_email || '>', refresh_token, connected_at > now() - "
                         "interval '1 hour', last_sync_at, coalesce(last_result, 'NULL'))"_s),
                 u"<> %1 t 2024-02-02 00:00:00+00 NULL"_s.arg(kRefresh));
        QCOMPARE(
            scalar(u"SELECT concat_ws(' ', account_email, refresh_token, connected_at::date, last_result) "
                   "FROM tarn.engine_accounts WHERE engine = 'bing'"_s),
            u"b b 2024-01-01 b"_s);
    }

    void email_data()
    {
        QTest::addColumn<QByteArray>("idToken"); // as JSON
        QTest::addColumn<QString>("email");
        const auto token = [](const QByteArray& payload) {
            return "'h." + quoted(payload).toBase64(QByteArray::Base64UrlEncoding) + ".s'";
        };
        QTest::newRow("padded") << token("{'email':'admin@example.org'}") << u"admin@example.org"_s;
        QTest::newRow("not-padded") << QByteArray("'h.eyJlbWFpbCI6ImFAYi5jIn0.s'") << u"a@b.c"_s;
        QTest::newRow("stray-characters") << QByteArray("'h.eyJl bWFp\\nbCI6ImFA!Yi5jIn0.s'") << u"a@b.c"_s;
        QTest::newRow("url-safe-alphabet") // "-" and "_" stand in it
            << token("{'email':'a@b.c','nnn':'\xc3\xbf\xc3\xbf\xc3\xbf~~~'}") << u"a@b.c"_s;
        QTest::newRow("two-parts") << QByteArray("'h.eyJlbWFpbCI6ImFAYi5jIn0'") << u"a@b.c"_s;
        QTest::newRow("non-ascii") << token("{'email':'m\xc3\xbcller@example.org'}")
                                   << u"müller@example.org"_s;
        QTest::newRow("nul-inside") << token("{'email':'a\\u0000@b.c'}") << u"a@b.c"_s;
        QTest::newRow("one-part") << QByteArray("'eyJlbWFpbCI6ImFAYi5jIn0'") << u""_s;
        QTest::newRow("empty-parts") << QByteArray("'..'") << u""_s;
        QTest::newRow("empty") << QByteArray("''") << u""_s;
        QTest::newRow("number") << QByteArray("17") << u""_s;
        QTest::newRow("null") << QByteArray("null") << u""_s;
        QTest::newRow("no-json") << token("email=a@b.c") << u""_s;
        QTest::newRow("json-array") << token("['email','a@b.c']") << u""_s;
        QTest::newRow("no-email") << token("{'sub':'17'}") << u""_s;
        QTest::newRow("email-is-a-number") << token("{'email':17}") << u""_s;
    }
    void email()
    {
        QFETCH(const QByteArray, idToken);
        QFETCH(const QString, email);
        m_hosts.expect(exchangeRequest(),
                       json("{'access_token':'ya29.access','refresh_token':'1//refresh+&=%','id_token':"
                            + idToken + '}'));
        m_hosts.expect(sitesRequest(), noProperties());
        QCOMPARE(connectNow(), u""_s);
        QCOMPARE(account(u"account_email"_s), email);
        QCOMPARE(account(u"refresh_token"_s), kRefresh);
    }

    void noRefreshToken_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("missing") << QByteArray("{'access_token':'ya29.access'}");
        QTest::newRow("empty-token") << QByteArray("{'refresh_token':'','access_token':'ya29.access'}");
        QTest::newRow("number") << QByteArray("{'refresh_token':17}");
        QTest::newRow("null") << QByteArray("{'refresh_token':null}");
        QTest::newRow("array") << QByteArray("[{'refresh_token':'1//refresh+&=%'}]");
        QTest::newRow("broken-json") << QByteArray("{'refresh_token':'1//refresh+&=%'");
        QTest::newRow("page-of-html") << QByteArray("<html>Moved.</html>");
        QTest::newRow("empty") << QByteArray();
        // Google's words count when it refuses; this answer is no refusal.
        QTest::newRow("error-in-a-success") << QByteArray("{'error':'x','error_description':'not so'}");
    }
    void noRefreshToken()
    {
        QFETCH(const QByteArray, body);
        m_hosts.expect(exchangeRequest(), json(body));
        QCOMPARE(connectNow(), u"Google did not return a refresh token"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.engine_accounts"_s), u"0"_s);
    }

    void notStored()
    {
        run(u"ALTER TABLE tarn.engine_accounts RENAME TO away"_s);
        expectSqlWarning(u"relation \"tarn.engine_accounts\" does not exist"_s);
        m_hosts.expect(exchangeRequest(),
                       json("{'access_token':'ya29.access','refresh_token':'1//refresh+&=%'}"));
        QCOMPARE(connectNow(), u"could not store the connection"_s);
    }

    void nulInTheRefreshToken()
    {
        m_hosts.expect(exchangeRequest(),
                       json("{'access_token':'ya29.\\u0000access','refresh_token':'1//\\u0000refresh+&=%'}"));
        m_hosts.expect(sitesRequest(), noProperties());
        QCOMPARE(connectNow(), u""_s);
        QCOMPARE(account(u"refresh_token"_s), kRefresh);
    }

    void lineEndsInTheAccessTokenMakeNoHeader()
    {
        m_hosts.expect(exchangeRequest(), json("{'refresh_token':'1//refresh+&=%','access_token':"
                                               "'ya29.\\r\\naccess'}"));
        m_hosts.expect(sitesRequest(), noProperties());
        QCOMPARE(connectNow(), u""_s);
    }

    /// Its characters are bytes of a header.
    void theAccessTokenIsSentInLatin1()
    {
        m_hosts.expect(exchangeRequest(), json("{'refresh_token':'1//refresh+&=%','access_token':"
                                               "'ya29.\\u00fc'}"));
        m_hosts.expect("GET " + kSitesUrl + "\nAuthorization: Bearer ya29.\xfc\n\n", noProperties());
        QCOMPARE(connectNow(), u""_s);
    }

    void withoutAnAccessTokenNoneIsSent()
    {
        m_hosts.expect(exchangeRequest(), json("{'refresh_token':'1//refresh+&=%'}"));
        m_hosts.expect("GET " + kSitesUrl + "\n\n",
                       json("{'error':{'code':401,'message':'Request is missing a credential.'}}", 401));
        QCOMPARE(connectNow(), u"Request is missing a credential."_s);
        QCOMPARE(account(u"refresh_token"_s), kRefresh); // the connection itself is made
    }

    void constraintsOfOtherProgramsShowNoToken_data()
    {
        QTest::addColumn<QString>("constraint");
        QTest::newRow("at-the-connection") << u"CHECK (last_result IS NOT NULL)"_s;
        QTest::newRow("at-the-result") << u"CHECK (last_result IS NULL)"_s;
    }
    void constraintsOfOtherProgramsShowNoToken()
    {
        QFETCH(const QString, constraint);
        run(u"ALTER TABLE tarn.engine_accounts DROP CONSTRAINT IF EXISTS odd"_s);
        run(u"ALTER TABLE tarn.engine_accounts ADD CONSTRAINT odd "_s + constraint);
        const auto expectRefusal = [] {
            QTest::ignoreMessage(QtWarningMsg,
                                 "sql: ERROR:  new row for relation \"engine_accounts\" violates check "
                                 "constraint \"odd\"");
        };
        m_hosts.answer([](const FakeHosts::Request& request) {
            return request.target == "/token"
                       ? json("{'refresh_token':'" + kRefresh.toUtf8() + "','access_token':'x'}")
                       : noProperties();
        });
        const bool atConnection = !constraint.contains(u"IS NULL"_s);
        if (atConnection)
            expectRefusal();
        QCOMPARE(connectNow(), atConnection ? u"could not store the connection"_s : QString());
        if (!atConnection) {
            expectRefusal();
            QCOMPARE(analytics::google::sync(kClient), u"no Search Console property matches a site here"_s);
        }
        // Not a part of the token either.
        for (const QString& message : std::as_const(g_messages))
            QVERIFY2(!message.contains(kRefresh.first(6)), qPrintable(message));
    }

    void disconnects_data()
    {
        QTest::addColumn<FakeHosts::Reply>("reply"); // to the revocation
        QTest::newRow("revoked") << json("{}");
        QTest::newRow("refused") << json("{'error':'invalid_token'}", 400);
        QTest::newRow("server-error") << json("", 500);
        QTest::newRow("cut") << FakeHosts::Reply{.delivery = Delivery::CutInBody};
    }
    void disconnects()
    {
        QFETCH(const FakeHosts::Reply, reply);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('bing', 'other')"_s);
        run(u"INSERT INTO tarn.search_properties VALUES (1, 'bing', 'theirs')"_s);
        run(u"INSERT INTO tarn.search_days VALUES (1, 'google', '2024-10-10', 1, 1, 1)"_s);
        run(u"INSERT INTO tarn.search_rows VALUES (1, 'google', '2024-10-10', 'q', '/', 'DE', 'mobile', 1, "
            u"1, "
            "1)"_s);
        m_hosts.expect(revokeRequest(), reply);
        analytics::google::disconnect();
        QCOMPARE(scalar(u"SELECT string_agg(engine, ' ') FROM tarn.engine_accounts"_s), u"bing"_s);
        QCOMPARE(mapping(), u"a.example.org bing theirs"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.search_days"_s), u"1"_s);
        QCOMPARE(rowCount(), u"1"_s);
        QCOMPARE(g_messages, QStringList());
    }

    void disconnectsWithoutAConnection_data()
    {
        QTest::addColumn<bool>("row");
        QTest::newRow("no-row") << false;
        QTest::newRow("empty-token") << true;
    }
    void disconnectsWithoutAConnection()
    {
        QFETCH(const bool, row);
        if (row)
            haveConnection(u""_s);
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        analytics::google::disconnect();
        QCOMPARE(mapping(), u""_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.engine_accounts"_s), u"0"_s);
    }

    void disconnectsWithoutOneOfTheTables()
    {
        haveConnection();
        run(u"DROP TABLE tarn.search_properties"_s);
        m_hosts.expect(revokeRequest(), json("{}"));
        expectSqlWarning(u"relation \"tarn.search_properties\" does not exist"_s);
        analytics::google::disconnect();
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.engine_accounts"_s), u"0"_s);
    }
};

QTEST_GUILESS_MAIN(tst_GoogleConnecting)
#include "tst_GoogleConnecting.moc"
