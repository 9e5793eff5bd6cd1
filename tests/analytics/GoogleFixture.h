// What the tests of Google share: its hosts on loopback, the requests that it must get and the answers that
// it gives, a connection and sites in the database. A test class inherits this one.
#pragma once

#include "analytics/Google.h"
#include "support/FakeHosts.h"
#include "support/ProductSession.h"
#include "support/Zone.h"

#include <QObject>
#include <QRegularExpression>
#include <QTest>
#include <QUrl>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;
using analytics::google::Client;

inline const auto kTokenUrl = "https://oauth2.googleapis.com/token"_ba;
inline const auto kSitesUrl = "https://www.googleapis.com/webmasters/v3/sites"_ba;

/// What must never be seen outside a request, nor in one to anybody else.
inline const auto kSecret = u"GOCSPX-s+e&c%ret"_s;
inline const auto kCode = u"4/0A-code+&=%"_s;
inline const auto kRefresh = u"1//refresh+&=%"_s;
inline const auto kAccess = u"ya29.access"_s;

inline const Client kClient{.id = u"17.apps.example"_s,
                            .secret = kSecret,
                            .redirectUri = u"https://panel.example.org/oauth/google/callback"_s};

inline constexpr int kPage = 25'000;

/// @p text with an apostrophe for each quotation mark. (No raw strings in this file: Qt's meta-object
/// compiler finds no class behind one with brackets in it.)
inline QByteArray quoted(QByteArray text)
{
    return text.replace('\'', '"');
}

inline QByteArray formRequest(const QByteArray& url, const QByteArray& body)
{
    return "POST " + url + "\nContent-Type: application/x-www-form-urlencoded\n\n" + body;
}

inline QByteArray exchangeRequest()
{
    return formRequest(kTokenUrl,
                       "code=4%2F0A-code%2B%26%3D%25&client_id=17.apps.example&client_secret="
                       "GOCSPX-s%2Be%26c%25ret&redirect_uri=https%3A%2F%2Fpanel.example.org%2Foauth%2Fgoogle"
                       "%2Fcallback&grant_type=authorization_code");
}

inline QByteArray refreshRequest()
{
    return formRequest(kTokenUrl, "client_id=17.apps.example&client_secret=GOCSPX-s%2Be%26c%25ret&"
                                  "refresh_token=1%2F%2Frefresh%2B%26%3D%25&grant_type=refresh_token");
}

inline QByteArray revokeRequest()
{
    return formRequest("https://oauth2.googleapis.com/revoke", "token=1%2F%2Frefresh%2B%26%3D%25");
}

inline QByteArray sitesRequest()
{
    return "GET " + kSitesUrl + "\nAuthorization: Bearer ya29.access\n\n";
}

inline QByteArray iso(QDate day)
{
    return day.toString(Qt::ISODate).toLatin1();
}

inline QByteArray queryRequest(const QByteArray& property, const QByteArray& dimensions, int start)
{
    const QDate today = QDate::currentDate();
    return "POST " + kSitesUrl + '/' + property
           + "/searchAnalytics/query\nContent-Type: application/json\nAuthorization: Bearer ya29.access\n\n"
           + quoted("{'dataState':'all','dimensions':[" + dimensions + "],'endDate':'" + iso(today)
                    + "','rowLimit':25000,'startDate':'" + iso(today.addMonths(-16))
                    + "','startRow':" + QByteArray::number(start) + '}');
}

inline QByteArray totalsRequest(const QByteArray& property)
{
    return queryRequest(property, "'date'", 0);
}

inline QByteArray pageRequest(const QByteArray& property, int start = 0)
{
    return queryRequest(property, "'date','query','page','country','device'", start);
}

inline FakeHosts::Reply json(const QByteArray& body, int status = 200)
{
    return {.status = status, .body = quoted(body), .headers = {{"Content-Type", "application/json"}}};
}

/// The usual answer to a refresh token.
inline FakeHosts::Reply granted()
{
    return json("{'access_token':'ya29.access','expires_in':3599}");
}

/// What an account without properties is told, so that a mapping stays as the test has made it.
inline FakeHosts::Reply noProperties()
{
    return json("{}");
}

inline FakeHosts::Reply totals(const QByteArray& day = "2024-10-10")
{
    return json("{'rows':[{'keys':['" + day + "'],'clicks':3,'impressions':120,'position':7.5}]}");
}

/// A page of @p count copies of @p row.
inline FakeHosts::Reply
page(int count, const QByteArray& row = "{'keys':['2024-10-10','q','/a','deu','MOBILE'],'clicks':1}")
{
    QByteArray rows = (row + ',').repeated(count);
    rows.chop(1);
    return json("{'rows':[" + rows + "]}");
}

inline QString statusText(int status)
{
    return u"the server answered with HTTP status %1: Scripted"_s.arg(status);
}

inline QString redirectText(int status)
{
    return u"the server answered with a redirect (HTTP status %1)"_s.arg(status);
}

/// Sets a zone in which it is about noon: a day does not end between what a test expects and what is asked.
inline void liveAtNoon()
{
    const int hour = QDateTime::currentDateTimeUtc().time().hour();
    Zone::set("<test>" + QByteArray::number(hour - 12)); // hours west
}

inline QStringList g_messages;
inline QtMessageHandler g_testHandler = nullptr;

inline void collectMessages(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    g_messages.append(text);
    if (type != QtInfoMsg)
        g_testHandler(type, context, text);
}

class GoogleFixture : public QObject
{
protected:
    void beginProgram()
    {
        QVERIFY(m_server.start());
        QVERIFY(
            m_hosts.start({u"accounts.google.com"_s, u"oauth2.googleapis.com"_s, u"www.googleapis.com"_s}));
        m_hosts.capture();
    }

    void endProgram() { FakeHosts::release(); }

    void beginTest()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        liveAtNoon();
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

    void endTest()
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

    /// Has no warning fail the test: around a lost session the driver has remarks that no test can name.
    static void messagesToList()
    {
        qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext&, const QString& text) { g_messages.append(text); });
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};
    FakeHosts m_hosts;
    QStringList m_returned; ///< every text that the unit has returned
    QString m_database;
    QByteArray m_test; ///< that the database was made for
};

} // namespace tarn::test
