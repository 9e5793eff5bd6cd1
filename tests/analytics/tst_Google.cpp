#include "analytics/Google.h"
#include "common/Db.h"
#include "support/FakeHosts.h"
#include "support/GzipProgram.h"
#include "support/ProductSession.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QUrl>

#include <ctime>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using analytics::google::Client;
using test::FakeHosts;
using test::run;
using test::scalar;
using Delivery = FakeHosts::Delivery;

namespace {

const auto kTokenUrl = "https://oauth2.googleapis.com/token"_ba;
const auto kSitesUrl = "https://www.googleapis.com/webmasters/v3/sites"_ba;

/// What must never be seen outside a request, nor in one to anybody else.
const auto kSecret = u"GOCSPX-s+e&c%ret"_s;
const auto kCode = u"4/0A-code+&=%"_s;
const auto kRefresh = u"1//refresh+&=%"_s;
const auto kAccess = u"ya29.access"_s;

const Client kClient{.id = u"17.apps.example"_s,
                     .secret = kSecret,
                     .redirectUri = u"https://panel.example.org/oauth/google/callback"_s};

constexpr int kPage = 25'000;

/// @p text with an apostrophe for each quotation mark. (No raw strings in this file: Qt's meta-object
/// compiler finds no class behind one with brackets in it.)
QByteArray quoted(QByteArray text)
{
    return text.replace('\'', '"');
}

QByteArray formRequest(const QByteArray& url, const QByteArray& body)
{
    return "POST " + url + "\nContent-Type: application/x-www-form-urlencoded\n\n" + body;
}

QByteArray exchangeRequest()
{
    return formRequest(kTokenUrl,
                       "code=4%2F0A-code%2B%26%3D%25&client_id=17.apps.example&client_secret="
                       "GOCSPX-s%2Be%26c%25ret&redirect_uri=https%3A%2F%2Fpanel.example.org%2Foauth%2Fgoogle"
                       "%2Fcallback&grant_type=authorization_code");
}

QByteArray refreshRequest()
{
    return formRequest(kTokenUrl, "client_id=17.apps.example&client_secret=GOCSPX-s%2Be%26c%25ret&"
                                  "refresh_token=1%2F%2Frefresh%2B%26%3D%25&grant_type=refresh_token");
}

QByteArray revokeRequest()
{
    return formRequest("https://oauth2.googleapis.com/revoke", "token=1%2F%2Frefresh%2B%26%3D%25");
}

QByteArray sitesRequest()
{
    return "GET " + kSitesUrl + "\nAuthorization: Bearer ya29.access\n\n";
}

QByteArray iso(QDate day)
{
    return day.toString(Qt::ISODate).toLatin1();
}

QByteArray queryRequest(const QByteArray& property, const QByteArray& dimensions, int start)
{
    const QDate today = QDate::currentDate();
    return "POST " + kSitesUrl + '/' + property
           + "/searchAnalytics/query\nContent-Type: application/json\nAuthorization: Bearer ya29.access\n\n"
           + quoted("{'dataState':'all','dimensions':[" + dimensions + "],'endDate':'" + iso(today)
                    + "','rowLimit':25000,'startDate':'" + iso(today.addMonths(-16))
                    + "','startRow':" + QByteArray::number(start) + '}');
}

QByteArray totalsRequest(const QByteArray& property)
{
    return queryRequest(property, "'date'", 0);
}

QByteArray pageRequest(const QByteArray& property, int start = 0)
{
    return queryRequest(property, "'date','query','page','country','device'", start);
}

FakeHosts::Reply json(const QByteArray& body, int status = 200)
{
    return {.status = status, .body = quoted(body), .headers = {{"Content-Type", "application/json"}}};
}

/// The usual answer to a refresh token.
FakeHosts::Reply granted()
{
    return json("{'access_token':'ya29.access','expires_in':3599}");
}

/// What an account without properties is told, so that a mapping stays as the test has made it.
FakeHosts::Reply noProperties()
{
    return json("{}");
}

FakeHosts::Reply totals(const QByteArray& day = "2024-10-10")
{
    return json("{'rows':[{'keys':['" + day + "'],'clicks':3,'impressions':120,'position':7.5}]}");
}

/// A page of @p count copies of @p row.
FakeHosts::Reply page(int count,
                      const QByteArray& row = "{'keys':['2024-10-10','q','/a','deu','MOBILE'],'clicks':1}")
{
    QByteArray rows = (row + ',').repeated(count);
    rows.chop(1);
    return json("{'rows':[" + rows + "]}");
}

/// @p reply as a server sends it that compresses.
FakeHosts::Reply compressed(FakeHosts::Reply reply)
{
    reply.body = test::gzip(reply.body);
    reply.headers.emplaceBack("Content-Encoding", "gzip");
    return reply;
}

QString statusText(int status)
{
    return u"the server answered with HTTP status %1: Scripted"_s.arg(status);
}

QString redirectText(int status)
{
    return u"the server answered with a redirect (HTTP status %1)"_s.arg(status);
}

/// Memory that this process has, in MB.
double residentMb()
{
    QFile file(u"/proc/self/statm"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').at(1).toDouble() * static_cast<double>(sysconf(_SC_PAGESIZE))
           / 1'048'576;
}

/// Sets a zone in which it is about noon: a day does not end between what a test expects and what is asked.
void liveAtNoon()
{
    const int hour = QDateTime::currentDateTimeUtc().time().hour();
    qputenv("TZ", "<test>" + QByteArray::number(hour - 12)); // hours west
    tzset();
}

QStringList g_messages;
QtMessageHandler g_testHandler = nullptr;

void collectMessages(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    g_messages.append(text);
    if (type != QtInfoMsg)
        g_testHandler(type, context, text);
}

} // namespace

class tst_Google : public QObject
{
    Q_OBJECT

private:
    /// A connection as connect() leaves it.
    static void haveConnection(const QString& refresh = kRefresh)
    {
        run(u"INSERT INTO tarn.engine_accounts (engine, account_email, refresh_token) "
            "VALUES ('google', 'admin@example.org', '%1')"_s.arg(refresh));
    }
    /// A site and, unless @p property is empty, what it is called at Google.
    static void haveSite(int id, const QString& host, const QString& property = {})
    {
        run(u"INSERT INTO tarn.sites (id, host) VALUES (%1, '%2')"_s.arg(id).arg(host));
        if (!property.isEmpty())
            run(u"INSERT INTO tarn.search_properties VALUES (%1, 'google', '%2')"_s.arg(id).arg(property));
    }
    static QString mapping()
    {
        return scalar(u"SELECT coalesce(string_agg(concat_ws(' ', host, p.engine, property), '|' "
                      "ORDER BY host, p.engine), '') FROM tarn.search_properties p JOIN tarn.sites s "
                      "ON s.id = site_id"_s);
    }
    static QString account(const QString& column)
    {
        return scalar(u"SELECT %1 FROM tarn.engine_accounts WHERE engine = 'google'"_s.arg(column));
    }
    static QString rowCount() { return scalar(u"SELECT count(*) FROM tarn.search_rows"_s); }

    static void expectSqlWarning(const QString& text)
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*"_s + text));
    }

    /// The token and the list of properties, before what a test of the queries is about.
    void expectStart()
    {
        m_hosts.expect(refreshRequest(), granted());
        m_hosts.expect(sitesRequest(), noProperties());
    }

    /// Runs a synchronisation; the connection must have its result.
    QString sync()
    {
        m_returned.append(analytics::google::sync(kClient));
        return account(u"last_sync_at IS NOT NULL AND last_result = $x$%1$x$"_s.arg(m_returned.last()))
                       == u"true"_s
                   ? m_returned.last()
                   : u"not recorded: "_s + m_returned.last();
    }
    QString connectNow()
    {
        m_returned.append(analytics::google::connect(kClient, kCode));
        return m_returned.last();
    }

    /// Ends the session as a restart of the server does, and waits until it is noticed.
    static void killSession(const QSqlDatabase& other)
    {
        const QString backend = scalar(u"SELECT pg_backend_pid()"_s);
        run(other, u"SELECT pg_terminate_backend(%1)"_s.arg(backend));
        QVERIFY(QTest::qWaitFor([] { return !db::session().isOpen(); }));
    }

    /// Has no warning fail the test: around a lost session the driver has remarks that no test can name.
    static void messagesToList()
    {
        qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext&, const QString& text) { g_messages.append(text); });
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};
    FakeHosts m_hosts;
    QTemporaryDir m_folder;
    QStringList m_returned; ///< every text that the unit has returned
    QString m_database;
    QByteArray m_test; ///< that the database was made for

private Q_SLOTS:
    void initTestCase()
    {
        liveAtNoon();
        QVERIFY(m_server.start());
        QVERIFY(
            m_hosts.start({u"accounts.google.com"_s, u"oauth2.googleapis.com"_s, u"www.googleapis.com"_s}));
        m_hosts.capture();
    }
    void cleanupTestCase() { FakeHosts::release(); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        const bool sameTest = m_test == QTest::currentTestFunction();
        m_test = QTest::currentTestFunction();
        if (!sameTest) // else a row of it, and none does more than fill tables
            m_database = m_server.createDatabase();
        QVERIFY(m_session.open({
            {u"database/name"_s,     m_database},
            {u"database/timezone"_s, u"UTC"_s  }
        }));
        if (sameTest) {
            run(u"TRUNCATE tarn.sites, tarn.engine_accounts, tarn.search_properties, tarn.search_days, "
                "tarn.search_rows CASCADE"_s);
        }
        m_returned.clear();
        g_messages.clear();
        // After an init() that failed it is still the one below, which must not call itself.
        const QtMessageHandler before = qInstallMessageHandler(collectMessages);
        if (before != collectMessages)
            g_testHandler = before;
    }

    void cleanup()
    {
        qInstallMessageHandler(g_testHandler);
        const QString complaints = m_hosts.complaints().join(u'\n');
        m_hosts.reset();
        m_session.close();
        QCOMPARE(complaints, QString());
        const QString told = (g_messages + m_returned).join(u'\n');
        for (const QString& secret : {kSecret, kCode, kRefresh, kAccess}) {
            QVERIFY2(!told.contains(secret), qPrintable(told));
            const QString encoded = QString::fromLatin1(QUrl::toPercentEncoding(secret));
            QVERIFY2(!told.contains(encoded), qPrintable(told));
        }
    }

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

    void window_data()
    {
        QTest::addColumn<QDate>("lastStored");
        QTest::addColumn<QDate>("today");
        QTest::addColumn<QDate>("from");
        QTest::newRow("first") << QDate() << QDate(2024, 11, 15) << QDate(2023, 7, 15);
        QTest::newRow("first-over-two-new-years") << QDate() << QDate(2025, 1, 31) << QDate(2023, 9, 30);
        QTest::newRow("first-end-of-a-longer-month") << QDate() << QDate(2024, 10, 31) << QDate(2023, 6, 30);
        QTest::newRow("first-back-to-february") << QDate() << QDate(2024, 6, 30) << QDate(2023, 2, 28);
        QTest::newRow("first-back-to-a-leap-day") << QDate() << QDate(2025, 6, 30) << QDate(2024, 2, 29);
        QTest::newRow("first-on-a-leap-day") << QDate() << QDate(2024, 2, 29) << QDate(2022, 10, 29);
        QTest::newRow("first-from-january") << QDate() << QDate(2024, 5, 1) << QDate(2023, 1, 1);
        QTest::newRow("later") << QDate(2024, 11, 13) << QDate(2024, 11, 15) << QDate(2024, 11, 3);
        QTest::newRow("today-is-stored") << QDate(2024, 11, 15) << QDate(2024, 11, 15) << QDate(2024, 11, 5);
        QTest::newRow("over-a-month-end") << QDate(2024, 11, 3) << QDate(2024, 11, 5) << QDate(2024, 10, 24);
        QTest::newRow("over-new-year") << QDate(2025, 1, 10) << QDate(2025, 1, 12) << QDate(2024, 12, 31);
        QTest::newRow("over-a-leap-day") << QDate(2024, 3, 5) << QDate(2024, 3, 7) << QDate(2024, 2, 24);
        QTest::newRow("over-a-february") << QDate(2023, 3, 5) << QDate(2023, 3, 7) << QDate(2023, 2, 23);
        QTest::newRow("long-ago") << QDate(2022, 1, 1) << QDate(2024, 11, 15) << QDate(2021, 12, 22);
        QTest::newRow("clock-set-back") << QDate(2024, 11, 30) << QDate(2024, 11, 15) << QDate(2024, 11, 20);
    }
    void window()
    {
        QFETCH(const QDate, lastStored);
        QFETCH(const QDate, today);
        QFETCH(const QDate, from);
        const analytics::google::Window window = analytics::google::windowFor(lastStored, today);
        QCOMPARE(window.from, from);
        QCOMPARE(window.to, today);
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

    void withoutAnAccessTokenNoneIsSent()
    {
        m_hosts.expect(exchangeRequest(), json("{'refresh_token':'1//refresh+&=%'}"));
        m_hosts.expect("GET " + kSitesUrl + "\n\n",
                       json("{'error':{'code':401,'message':'Request is missing a credential.'}}", 401));
        QCOMPARE(connectNow(), u"Request is missing a credential."_s);
        QCOMPARE(account(u"refresh_token"_s), kRefresh); // the connection itself is made
    }

    /// What a refused request is called, wherever it was refused.
    void refusals_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("reason"); // empty: the network library's
        QTest::newRow("oauth-form")
            << 400 << QByteArray("{'error':'invalid_grant','error_description':'Token has been revoked.'}")
            << u"Token has been revoked."_s;
        QTest::newRow("oauth-form-without-words") << 400 << QByteArray("{'error':'invalid_grant'}") << u""_s;
        QTest::newRow("oauth-form-with-empty-words")
            << 400 << QByteArray("{'error':'invalid_grant','error_description':''}") << u""_s;
        QTest::newRow("oauth-form-with-a-number")
            << 400 << QByteArray("{'error':'invalid_grant','error_description':5}") << u""_s;
        QTest::newRow("description-alone")
            << 400 << QByteArray("{'error_description':'Bad Request'}") << u"Bad Request"_s;
        QTest::newRow("api-form") << 403
                                  << QByteArray(
                                         "{'error':{'code':403,'message':'Quota exceeded for ümlauts'}}")
                                  << u"Quota exceeded for ümlauts"_s;
        QTest::newRow("api-form-goes-first")
            << 400 << QByteArray("{'error':{'message':'the one'},'error_description':'the other'}")
            << u"the one"_s;
        QTest::newRow("api-form-without-words")
            << 403 << QByteArray("{'error':{'code':403},'error_description':'of another form'}") << u""_s;
        QTest::newRow("api-form-with-empty-words") << 403 << QByteArray("{'error':{'message':''}}") << u""_s;
        QTest::newRow("api-form-with-null") << 403 << QByteArray("{'error':{'message':null}}") << u""_s;
        QTest::newRow("error-is-null") << 500 << QByteArray("{'error':null}") << u""_s;
        QTest::newRow("nul-in-the-words")
            << 400 << QByteArray("{'error':{'message':'a\\u0000b'}}") << QString::fromLatin1("a\0b", 3);
        QTest::newRow("unauthorized")
            << 401 << QByteArray("{'error':{'code':401,'message':'Invalid Credentials'}}")
            << u"Invalid Credentials"_s;
        QTest::newRow("too-many") << 429 << json("{'error':{'message':'Slow down'}}").body << u"Slow down"_s;
        QTest::newRow("server-error")
            << 500 << QByteArray("{'error':{'message':'Internal error'}}") << u"Internal error"_s;
        QTest::newRow("empty-body") << 404 << QByteArray() << u""_s;
        QTest::newRow("page-of-html") << 502 << QByteArray("<html>Bad gateway</html>") << u""_s;
        QTest::newRow("json-array") << 503 << QByteArray("[{'error':{'message':'no'}}]") << u""_s;
        QTest::newRow("broken-json") << 500 << QByteArray("{'error':{'message':'no'}") << u""_s;
    }
    void refusals()
    {
        QFETCH(const int, status);
        QFETCH(const QByteArray, body);
        QFETCH(const QString, reason);
        const QString shown = reason.isEmpty() ? statusText(status) : reason;
        // The exchange of a code.
        m_hosts.expect(exchangeRequest(), json(body, status));
        QCOMPARE(connectNow(), shown);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.engine_accounts"_s), u"0"_s);

        // The refresh token.
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        const auto recorded = [](QString text) { return text.remove(QChar::Null); };
        m_hosts.expect(refreshRequest(), json(body, status));
        const QString refused = u"Google refused the stored sign-in (%1). Connect again."_s.arg(shown);
        QCOMPARE(analytics::google::sync(kClient), refused);
        QCOMPARE(account(u"last_result"_s), recorded(refused));

        // The list of properties.
        m_hosts.expect(refreshRequest(), granted());
        m_hosts.expect(sitesRequest(), json(body, status));
        QCOMPARE(analytics::google::sync(kClient), shown);
        QCOMPARE(account(u"last_result"_s), recorded(shown));

        // A site's totals.
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), json(body, status));
        const QString failed = u"a.example.org: "_s + shown;
        QCOMPARE(analytics::google::sync(kClient), failed);
        QCOMPARE(account(u"last_result"_s), recorded(failed));
        QCOMPARE(mapping(), u"a.example.org google sc-domain:a.example.org"_s);
    }

    void notConnected_data()
    {
        QTest::addColumn<Client>("client");
        QTest::addColumn<QString>("refresh"); // null: there is no row at all
        QTest::newRow("no-secret") << Client{u"17"_s, {}, {}} << kRefresh;
        QTest::newRow("no-id") << Client{{}, kSecret, {}} << kRefresh;
        QTest::newRow("no-connection") << kClient << QString();
        QTest::newRow("empty-token") << kClient << u""_s;
    }
    void notConnected()
    {
        QFETCH(const Client, client);
        QFETCH(const QString, refresh);
        if (!refresh.isNull())
            haveConnection(refresh);
        run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('bing', 'other')"_s);
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        QCOMPARE(analytics::google::sync(client), u"not connected"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.engine_accounts WHERE last_sync_at IS NOT NULL OR "
                        "last_result IS NOT NULL"_s),
                 u"0"_s);
        QCOMPARE(g_messages, QStringList());
    }

    void notConnectedWithoutTheTable()
    {
        run(u"ALTER TABLE tarn.engine_accounts RENAME TO away"_s);
        expectSqlWarning(u"relation \"tarn.engine_accounts\" does not exist"_s);
        QCOMPARE(analytics::google::sync(kClient), u"not connected"_s);
    }

    void noAccessToken_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("missing") << QByteArray("{}");
        QTest::newRow("empty-token") << QByteArray("{'access_token':''}");
        QTest::newRow("number") << QByteArray("{'access_token':17}");
        QTest::newRow("broken-json") << QByteArray("{'access_token':'ya29.access'");
        QTest::newRow("empty") << QByteArray();
    }
    void noAccessToken()
    {
        QFETCH(const QByteArray, body);
        haveConnection();
        m_hosts.expect(refreshRequest(), json(body));
        QCOMPARE(sync(), u""_s);
    }

    void anAccessTokenThatComesWithAnErrorIsUsed()
    {
        haveConnection();
        m_hosts.expect(refreshRequest(),
                       json("{'access_token':'ya29.access','error':{'message':'deprecated'}}", 400));
        m_hosts.expect(sitesRequest(), noProperties());
        QCOMPARE(sync(), u"no Search Console property matches a site here"_s);
    }

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

    void synchronises()
    {
        haveConnection();
        haveSite(2, u"b.example.org"_s);
        haveSite(1, u"a.example.org"_s);
        haveSite(3, u"c.example.org"_s);
        const QDate today = QDate::currentDate();
        const auto daysAgo = [today](int days) { return iso(today.addDays(-days)); };
        run(u"INSERT INTO tarn.search_days VALUES (2, 'google', '%1', 1, 1, 1), (2, 'google', '%2', 1, 1, "
            u"1), "
            "(2, 'bing', '%3', 1, 1, 1), (3, 'google', '%3', 1, 1, 1)"_s.arg(
                QString::fromLatin1(daysAgo(2)), QString::fromLatin1(daysAgo(3)),
                QString::fromLatin1(daysAgo(0))));
        QVERIFY(m_hosts.expectFile(QStringLiteral(TARN_TEST_DATA "/google/sync.txt"),
                                   {
                                       {"today",         daysAgo(0)               },
                                       {"2-days-ago",    daysAgo(2)               },
                                       {"12-days-ago",   daysAgo(12)              },
                                       {"16-months-ago", iso(today.addMonths(-16))}
        }));
        QCOMPARE(sync(), u"a.example.org: 2 days (2024-10-10 to 2024-10-11), 2 detail rows; b.example.org: "
                         "1 days (%1 to %1), 0 detail rows"_s.arg(QString::fromLatin1(daysAgo(2))));
        QCOMPARE(scalar(u"SELECT string_agg(concat_ws(' ', site_id, day, clicks, impressions, position), '|' "
                        "ORDER BY day) FROM tarn.search_days WHERE engine = 'google' AND site_id = 1"_s),
                 u"1 2024-10-10 3 120 7.5|1 2024-10-11 2 80 6.25"_s);
        QCOMPARE(scalar(u"SELECT clicks FROM tarn.search_days WHERE site_id = 2 AND engine = 'google' AND "
                        "day = '%1'"_s.arg(QString::fromLatin1(daysAgo(2)))),
                 u"5"_s);
        QCOMPARE(
            scalar(u"SELECT string_agg(concat_ws(' ', site_id, engine, day, query, page, "
                   "coalesce(country, 'NULL'), device, clicks, impressions, position), '|' ORDER BY day) "
                   "FROM tarn.search_rows"_s),
            u"1 google 2024-10-10 red shoes /shop/ DE mobile 1 20 2.5|1 google 2024-10-11 schöne schuhe "
            "/shop/schön NULL desktop 0 7 9"_s);
        QCOMPARE(g_messages, QStringList{u"collect: synchronising 2 sites with Google"_s});
    }

    void theLastStoredDayMayBeToday()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        const QDate today = QDate::currentDate();
        run(u"INSERT INTO tarn.search_days VALUES (1, 'google', '%1', 1, 1, 1)"_s.arg(
            today.toString(Qt::ISODate)));
        expectStart();
        QByteArrayList days;
        m_hosts.answer([&days](const FakeHosts::Request& request) {
            const QJsonObject body = QJsonDocument::fromJson(request.body).object();
            days += body[u"startDate"].toString().toLatin1() + ' ' + body[u"endDate"].toString().toLatin1();
            return json("{}");
        });
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
        const QByteArray expected = iso(today.addDays(-10)) + ' ' + iso(today);
        QCOMPARE(days, QByteArrayList({expected, expected}));
    }

    void propertyReachesGoogleAsItIs_data()
    {
        QTest::addColumn<QString>("property");
        QTest::addColumn<QByteArray>("encoded");
        QString ascii;
        for (char16_t c = 0x21; c < 0x7f; ++c)
            ascii += c;
        QTest::newRow("every-character-of-ascii")
            << ascii
            << "%21%22%23%24%25%26%27%28%29%2A%2B%2C-.%2F0123456789%3A%3B%3C%3D%3E%3F%"
               "40ABCDEFGHIJKLMNOPQRSTUVWX"
               "YZ%5B%5C%5D%5E_%60abcdefghijklmnopqrstuvwxyz%7B%7C%7D~"_ba;
        QTest::newRow("percent-encoded-already")
            << u"https://d.example/a%20b%2Fc%C3%BC%41/"_s
            << "https%3A%2F%2Fd.example%2Fa%2520b%252Fc%25C3%25BC%2541%2F"_ba;
        QTest::newRow("plus-and-space")
            << u"https://d.example/a+b c/"_s << "https%3A%2F%2Fd.example%2Fa%2Bb%20c%2F"_ba;
        QTest::newRow("non-ascii") << u"sc-domain:bücher.example\U0001F600"_s
                                   << "sc-domain%3Ab%C3%BCcher.example%F0%9F%98%80"_ba;
        QTest::newRow("path-that-goes-up")
            << u"https://d.example/a/../b/./"_s << "https%3A%2F%2Fd.example%2Fa%2F..%2Fb%2F.%2F"_ba;
        QTest::newRow("line-end") << u"sc-domain:a\r\nb"_s << "sc-domain%3Aa%0D%0Ab"_ba;
    }
    void propertyReachesGoogleAsItIs()
    {
        QFETCH(const QString, property);
        QFETCH(const QByteArray, encoded);
        haveConnection();
        haveSite(1, u"a.example.org"_s);
        run(u"INSERT INTO tarn.search_properties VALUES (1, 'google', $x$%1$x$)"_s.arg(property));
        expectStart();
        m_hosts.expect(totalsRequest(encoded), json("{}"));
        m_hosts.expect(pageRequest(encoded), json("{}"));
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
    }

    void noNewData_data()
    {
        QTest::addColumn<QByteArray>("body"); // of the totals
        QTest::newRow("empty-rows") << QByteArray("{'rows':[]}");
        QTest::newRow("no-rows") << QByteArray("{'responseAggregationType':'byProperty'}");
        QTest::newRow("null") << QByteArray("{'rows':null}");
        QTest::newRow("broken-json") << QByteArray("{'rows':[{'keys':['2024-10-10']}");
        QTest::newRow("error-in-a-success") << QByteArray("{'error':{'message':'not so'}}");
        QTest::newRow("empty") << QByteArray();
    }
    void noNewData()
    {
        QFETCH(const QByteArray, body);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        run(u"INSERT INTO tarn.search_rows VALUES (1, 'google', '2024-10-10', 'q', '/', 'DE', 'mobile', 1, "
            u"1, "
            "1)"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), json(body));
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"), page(3)); // asked for, and dropped
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
        QCOMPARE(rowCount(), u"1"_s);
    }

    void aFailingSiteStopsNoOther()
    {
        haveConnection();
        haveSite(3, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        haveSite(2, u"b.example.org"_s, u"sc-domain:b.example.org"_s);
        haveSite(1, u"c.example.org"_s, u"sc-domain:c.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"), page(1));
        // None of its pages is asked for.
        m_hosts.expect(totalsRequest("sc-domain%3Ab.example.org"),
                       json("{'error':{'message':'User does not have access'}}", 403));
        m_hosts.expect(totalsRequest("sc-domain%3Ac.example.org"), totals("2024-10-11"));
        m_hosts.expect(pageRequest("sc-domain%3Ac.example.org"), page(2));
        QCOMPARE(sync(),
                 u"a.example.org: 1 days (2024-10-10 to 2024-10-10), 1 detail rows; b.example.org: User "
                 "does not have access; c.example.org: 1 days (2024-10-11 to 2024-10-11), 2 detail "
                 "rows"_s);
        QCOMPARE(rowCount(), u"3"_s);
    }

    void anImportThatFailsStopsNoOther()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        haveSite(2, u"b.example.org"_s, u"sc-domain:b.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"), page(1, "{'keys':['soon']}"));
        m_hosts.expect(totalsRequest("sc-domain%3Ab.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Ab.example.org"), page(1));
        expectSqlWarning(u"invalid input syntax for type date: \"soon\""_s);
        QCOMPARE(sync(), u"a.example.org: database error while storing; b.example.org: 1 days (2024-10-10 to "
                         "2024-10-10), 1 detail rows"_s);
        QCOMPARE(rowCount(), u"1"_s);
    }

    /// Which pages are asked for, told by how many rows each has; nothing is stored, for want of totals.
    void pages_data()
    {
        QTest::addColumn<QList<int>>("counts");
        QTest::newRow("none") << QList<int>{0};
        QTest::newRow("one-short-of-a-page") << QList<int>{kPage - 1};
        QTest::newRow("a-page") << QList<int>{kPage, 0};
        QTest::newRow("a-page-and-one") << QList<int>{kPage, 1};
        QTest::newRow("two-pages") << QList<int>{kPage, kPage, 0};
        QTest::newRow("more-than-was-asked-for") << QList<int>{kPage + 1, 0};
        QTest::newRow("a-million") << QList<int>(40, kPage);
    }
    void pages()
    {
        QFETCH(const QList<int>, counts);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), json("{}"));
        for (int i = 0; i < counts.size(); ++i)
            m_hosts.expect(pageRequest("sc-domain%3Aa.example.org", i * kPage), page(counts.at(i), "0"));
        if (counts.size() == 40) {
            QTest::ignoreMessage(QtWarningMsg,
                                 "collect: google: a.example.org: details end with page 40, the last "
                                 "that is asked for: rows from 1000000 on are missing");
        }
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
    }

    void whatCameBeforeAFailedPageIsStored_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<Delivery>("delivery");
        QTest::addColumn<int>("stored");
        QTest::addColumn<QString>("reason");
        const QByteArray row = page(1).body;
        QTest::newRow("server-error") << 500 << QByteArray() << Delivery::Whole << kPage << statusText(500);
        QTest::newRow("quota") << 429 << json("{'error':{'message':'Slow down'}}").body << Delivery::Whole
                               << kPage << u"Slow down"_s;
        QTest::newRow("redirect") << 302 << row << Delivery::Whole << kPage << redirectText(302);
        QTest::newRow("broken-json") << 200 << row.chopped(1) << Delivery::Whole << kPage
                                     << u"the answer is no JSON object"_s;
        const qsizetype size = page(100).body.size();
        QTest::newRow("cut") << 200 << page(100).body << Delivery::CutInBody << kPage
                             << u"transfer closed with %1 bytes remaining to read"_s.arg(size - size / 2);
        QTest::newRow("in-chunks") << 200 << page(100).body << Delivery::Chunked << kPage + 100 << QString();
    }
    void whatCameBeforeAFailedPageIsStored()
    {
        QFETCH(const int, status);
        QFETCH(const QByteArray, body);
        QFETCH(const Delivery, delivery);
        QFETCH(const int, stored);
        QFETCH(const QString, reason);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"), page(kPage));
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org", kPage),
                       {.status = status,
                        .body = body,
                        .headers = {{"Location", "https://elsewhere.example.net/"}},
                        .delivery = delivery});
        const auto warning =
            u"collect: google: a.example.org: page 2 of the details failed, rows from 25000 on are "
            "missing: "_s
            + reason;
        if (!reason.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, qPrintable(warning));
        QCOMPARE(sync(), u"a.example.org: 1 days (2024-10-10 to 2024-10-10), %1 detail rows"_s.arg(stored));
        QCOMPARE(rowCount(), QString::number(stored));
        QCOMPARE(g_messages.count(warning), reason.isEmpty() ? 0 : 1);
    }

    void memoryOfALargeSiteIsGivenBack()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        m_hosts.answer([](const FakeHosts::Request& request) {
            if (request.target == "/token")
                return granted();
            const bool last = request.body.contains(quoted("'startRow':100000"));
            return request.body.contains("device") && !last ? page(kPage) : json("{}");
        });
        const double before = residentMb();
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
        m_hosts.reset();
        const double more = residentMb() - before;
#ifdef __SANITIZE_ADDRESS__ // which keeps what is freed
        QVERIFY(more < 1000);
#else
        QVERIFY2(more < 30, qPrintable(u"%1 MB more than before"_s.arg(more)));
#endif
    }

    void wellCompressedPages_data()
    {
        QTest::addColumn<int>("rowBytes");
        QTest::addColumn<bool>("taken");
        QTest::newRow("12-mb") << 500 << true;
        QTest::newRow("75-mb") << 3000 << true;
        QTest::newRow("137-mb") << 5500 << false;
    }
    void wellCompressedPages()
    {
        QFETCH(const int, rowBytes);
        QFETCH(const bool, taken);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), json("{}"));
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"),
                       compressed(page(kPage, '"' + QByteArray(rowBytes - 3, 'x') + '"')));
        if (taken) {
            m_hosts.expect(pageRequest("sc-domain%3Aa.example.org", kPage), page(0));
        } else {
            QTest::ignoreMessage(QtWarningMsg,
                                 "collect: google: a.example.org: page 1 of the details failed, rows "
                                 "from 0 on are missing: the answer has no end");
        }
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
    }

    void oddCharactersAreStored()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"),
                       page(1, "{'keys':['2024-10-10','a\\u0000b\\ud800','https://a/%00x\\u0000',null,7],"
                               "'clicks':'3','impressions':2.5,'position':null}"));
        QCOMPARE(sync(), u"a.example.org: 1 days (2024-10-10 to 2024-10-10), 1 detail rows"_s);
        QCOMPARE(
            scalar(u"SELECT concat_ws(' ', left(query, 2), page, coalesce(country, 'NULL'), '<' || device "
                   "|| '>', clicks, impressions, position) FROM tarn.search_rows"_s),
            u"ab /x NULL <> 0 0 0"_s);
    }

    void redirects_data()
    {
        QTest::addColumn<int>("status");
        for (const int status : {301, 302, 303, 307, 308})
            QTest::addRow("%d", status) << status;
    }
    void redirects()
    {
        QFETCH(const int, status);
        // A host that nobody answers for: a request to it would be a complaint.
        const FakeHosts::Reply away = {.status = status,
                                       .body = "{'refresh_token':'x','access_token':'y'}",
                                       .headers = {{"Location", "https://elsewhere.example.net/"}}};
        m_hosts.expect(exchangeRequest(), away);
        QCOMPARE(connectNow(), redirectText(status));

        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        m_hosts.expect(refreshRequest(), away);
        QCOMPARE(sync(),
                 u"Google refused the stored sign-in (%1). Connect again."_s.arg(redirectText(status)));
        m_hosts.expect(refreshRequest(), granted());
        m_hosts.expect(sitesRequest(), away);
        QCOMPARE(sync(), redirectText(status));
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), away);
        QCOMPARE(sync(), u"a.example.org: "_s + redirectText(status));
        m_hosts.expect(revokeRequest(), away);
        analytics::google::disconnect();
        // Within one host as well.
        m_hosts.expect(
            exchangeRequest(),
            {.status = status, .headers = {{"Location", "https://oauth2.googleapis.com/v2/token"}}});
        QCOMPARE(connectNow(), redirectText(status));
    }

    void cutConnections_data()
    {
        QTest::addColumn<Delivery>("delivery");
        QTest::addColumn<QString>("reason");
        const qsizetype size = totals().body.size();
        QTest::newRow("before-the-answer")
            << Delivery::CutAtOnce << u"the server closed the connection without an answer"_s;
        QTest::newRow("in-the-answer")
            << Delivery::CutInBody
            << u"transfer closed with %1 bytes remaining to read"_s.arg(size - size / 2);
    }
    void cutConnections()
    {
        QFETCH(const Delivery, delivery);
        QFETCH(const QString, reason);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        haveSite(2, u"b.example.org"_s, u"sc-domain:b.example.org"_s);
        expectStart();
        m_hosts.answer([delivery](const FakeHosts::Request& request) {
            FakeHosts::Reply reply = totals();
            if (request.target.contains("a.example.org"))
                reply.delivery = delivery;
            return reply;
        });
        QCOMPARE(sync(),
                 u"a.example.org: %1; b.example.org: 1 days (2024-10-10 to 2024-10-10), 1 detail rows"_s.arg(
                     reason));
        // The token, the properties, the totals of both and the details of one, each once.
        QCOMPARE(m_hosts.requests().size(), 5);
    }

    /// What a code was exchanged for at the first try is lost when there is a second one.
    void codesAreSentOnce()
    {
        m_hosts.answer(
            [](const FakeHosts::Request&) { return FakeHosts::Reply{.delivery = Delivery::CutAtOnce}; });
        QCOMPARE(connectNow(), u"the server closed the connection without an answer"_s);
        QCOMPARE(m_hosts.requests().size(), 1);
    }

    void nobodyThere()
    {
        FakeHosts gone;
        QVERIFY(gone.start({u"oauth2.googleapis.com"_s}));
        gone.close();
        haveConnection();
        FakeHosts::capture(m_hosts.serverPort(), gone.authority().file());
        const QString untrusted = sync();
        FakeHosts::capture(gone.serverPort(), m_hosts.authority().file());
        const QString refused = sync();
        const QString notConnected = connectNow();
        m_hosts.capture();
        QVERIFY2(untrusted.startsWith(u"Google refused the stored sign-in (SSL certificate problem"_s),
                 qPrintable(untrusted));
        QCOMPARE(refused, u"Google refused the stored sign-in (Proxy connection refused). Connect again."_s);
        QCOMPARE(notConnected, u"Proxy connection refused"_s);
    }

    void stalledTransfersEndAfterAMinute()
    {
        // The second while the first waits, as when a notification starts it.
        haveConnection();
        m_hosts.expect(exchangeRequest(), {.body = "{}", .delivery = Delivery::Stalled});
        FakeHosts::Reply half = granted();
        half.delivery = Delivery::StalledBody;
        m_hosts.expect(refreshRequest(), half);
        QString nested;
        QTimer::singleShot(500, this, [&] { nested = sync(); });
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(connectNow(), u"no data for 60 seconds"_s);
        QVERIFY2(timer.elapsed() > 58'000 && timer.elapsed() < 90'000,
                 qPrintable(QString::number(timer.elapsed())));
        QTRY_COMPARE(nested, u"Google refused the stored sign-in (no data for 60 seconds). Connect again."_s);
    }

    void aReconnectDuringEachWaitDoesNoHarm()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        haveSite(2, u"b.example.org"_s, u"sc-domain:b.example.org"_s);
        int reconnects = 0;
        m_hosts.answer([&](const FakeHosts::Request& request) {
            reconnects += db::ensure(true) ? 1 : 0;
            if (request.target == "/token")
                return granted();
            if (request.target.endsWith("/sites"))
                return json("{'siteEntry':[{'siteUrl':'https://a.example.org/'}]}");
            return request.body.contains("device") ? page(1) : totals();
        });
        const auto done = u"1 days (2024-10-10 to 2024-10-10), 1 detail rows"_s;
        QCOMPARE(sync(), u"a.example.org: "_s + done + u"; b.example.org: "_s + done);
        QCOMPARE(reconnects, 6);
        QCOMPARE(rowCount(), u"2"_s);
        analytics::google::disconnect();
        QCOMPARE(reconnects, 7);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.engine_accounts"_s), u"0"_s);
    }

    void noTransactionIsOpenDuringAWait()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        int waits = 0;
        m_hosts.answer([&](const FakeHosts::Request& request) {
            // Nor does a prepared statement live on.
            waits += scalar(u"SELECT now() = statement_timestamp() AND NOT EXISTS (SELECT FROM "
                            "pg_prepared_statements)"_s)
                             == u"true"_s
                         ? 1
                         : 0;
            if (request.target == "/token")
                return granted();
            return request.body.contains("device") ? page(1) : totals();
        });
        sync();
        analytics::google::disconnect();
        QCOMPARE(waits, 5);
    }

    void aSecondSyncDuringTheFirst()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        QString nested;
        bool started = false;
        m_hosts.answer([&](const FakeHosts::Request& request) {
            if (request.target == "/token")
                return granted();
            if (request.target.endsWith("/sites"))
                return noProperties();
            if (!started)
                QTimer::singleShot(0, this, [&] { nested = sync(); });
            started = true;
            return request.body.contains("device") ? page(3) : totals();
        });
        const auto done = u"a.example.org: 1 days (2024-10-10 to 2024-10-10), 3 detail rows"_s;
        QCOMPARE(sync(), done);
        QTRY_COMPARE(nested, done);
        QCOMPARE(rowCount(), u"3"_s);
    }

    void toldToEndDuringAWait()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"),
                       {.body = "", .delivery = Delivery::Stalled});
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [this] {
            if (m_hosts.requests().size() == 3)
                QCoreApplication::quit();
        });
        timer.start(10);
        QString result;
        QTimer::singleShot(0, this, [&] { result = sync(); });
        QCoreApplication::exec();
        QCOMPARE(result, u"a.example.org: interrupted"_s);
    }

    void lostSession()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.answer([this](const FakeHosts::Request&) {
            const QString backend = scalar(u"SELECT pg_backend_pid()"_s);
            run(m_session.other(), u"SELECT pg_terminate_backend(%1)"_s.arg(backend));
            return page(1);
        });
        qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext&, const QString& text) { g_messages.append(text); });
        const QString result = analytics::google::sync(kClient);
        qInstallMessageHandler(collectMessages);
        QCOMPARE(result, u"a.example.org: database error while storing"_s);
        QVERIFY2(g_messages.size() <= 8, qPrintable(g_messages.join(u" | "_s)));
        QVERIFY(db::ensure(false));
    }

    /// One that the event loop notices, as the collector's is, which listens.
    void sessionLostDuringAWaitIsOpenedAgain_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::newRow("token") << QByteArray("/token");
        QTest::newRow("properties") << QByteArray("/sites");
        QTest::newRow("figures") << QByteArray("/query");
    }
    void sessionLostDuringAWaitIsOpenedAgain()
    {
        QFETCH(const QByteArray, target);
        bool killed = false;
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        QVERIFY(db::session().driver()->subscribeToNotification(u"test"_s));
        m_hosts.answer([&](const FakeHosts::Request& request) {
            if (request.target.endsWith(target) && !std::exchange(killed, true))
                killSession(m_session.other());
            if (request.target == "/token")
                return granted();
            return request.target.endsWith("/sites") ? noProperties()
                   : request.body.contains("device") ? page(1)
                                                     : totals();
        });
        messagesToList();
        const QString result = sync();
        qInstallMessageHandler(collectMessages);
        QCOMPARE(result, u"a.example.org: 1 days (2024-10-10 to 2024-10-10), 1 detail rows"_s);
        QCOMPARE(g_messages.count(u"database: reconnected"_s), 1);
    }

    void codeIsNotSpentForALostSession()
    {
        QVERIFY(db::session().driver()->subscribeToNotification(u"test"_s));
        m_hosts.answer([&](const FakeHosts::Request& request) {
            if (!request.target.endsWith("/token"))
                return noProperties();
            killSession(m_session.other());
            return json("{'refresh_token':'" + kRefresh.toUtf8() + "','access_token':'x'}");
        });
        messagesToList();
        const QString result = connectNow();
        qInstallMessageHandler(collectMessages);
        QCOMPARE(result, QString());
        QCOMPARE(account(u"refresh_token"_s), kRefresh);
    }

    void lostDatabaseIsNamed_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QString>("result");
        QTest::newRow("token") << QByteArray("/token") << u"the database was lost"_s;
        QTest::newRow("properties") << QByteArray("/sites") << u"the database was lost"_s;
        QTest::newRow("figures")
            << QByteArray("a.example.org/searchAnalytics/query")
            << u"a.example.org: the database was lost; b.example.org: the database was lost"_s;
    }
    void lostDatabaseIsNamed()
    {
        QFETCH(const QByteArray, target);
        QFETCH(const QString, result);
        haveConnection();
        for (int id = 1; id < 4; ++id) {
            const QString host = QChar(u'a' + id - 1) + u".example.org"_s;
            haveSite(id, host, u"sc-domain:"_s + host);
        }
        QVERIFY(db::session().driver()->subscribeToNotification(u"test"_s));
        QSqlDatabase other = m_session.other();
        m_hosts.answer([&](const FakeHosts::Request& request) {
            if (request.target.endsWith(target) && db::session().isOpen()) {
                run(other,
                    u"UPDATE pg_database SET datallowconn = false WHERE datname = current_database()"_s);
                killSession(other);
            }
            if (request.target == "/token")
                return granted();
            return request.target.endsWith("/sites") ? noProperties()
                   : request.body.contains("device") ? page(1)
                                                     : totals();
        });
        messagesToList();
        const QString returned = analytics::google::sync(kClient);
        run(other, u"UPDATE pg_database SET datallowconn = true WHERE datname = current_database()"_s);
        qInstallMessageHandler(collectMessages);
        QCOMPARE(returned, result);
        QVERIFY2(g_messages.size() <= 6, qPrintable(g_messages.join(u" | "_s)));
        QVERIFY(db::ensure(false));
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

QTEST_GUILESS_MAIN(tst_Google)
#include "tst_Google.moc"
