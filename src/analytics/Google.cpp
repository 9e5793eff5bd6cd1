#include "analytics/Google.h"

#include "analytics/SearchImport.h"
#include "analytics/UrlText.h"
#include "common/Db.h"
#include "common/Http.h"
#include "common/Settings.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QSettings>
#include <QSqlQuery>
#include <QStringList>
#include <QUrl>
#include <QVariant>

#include <malloc.h>
#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace tarn::analytics::google {

namespace {

constexpr int kSilenceMs = 60'000;
/// An answer that comes byte by byte would otherwise hold up the other long jobs for ever.
constexpr int kTotalMs = 3'600 * 1'000;
/// Of a decompressed answer. Each of the 25,000 rows of a page can have 5,000 bytes.
constexpr qint64 kBodyBytes = 134'217'728;
constexpr http::Limits kLimits{.silenceMs = kSilenceMs, .totalMs = kTotalMs, .bodyBytes = kBodyBytes};

/// Rows to a page, the most that Google gives; a page with fewer is the last.
constexpr int kPageRows = 25'000;
/// All detail rows of a site are in memory before they are stored.
constexpr int kMaxRows = 1'000'000;

constexpr int kFirstMonths = 16;
constexpr int kAgainDays = 10;

const auto kNotConnected = u"not connected"_s;
const auto kDatabaseLost = u"the database was lost"_s;

constexpr auto kDomainPrefix = "sc-domain:"_L1;
constexpr auto kFormType = "application/x-www-form-urlencoded";

const auto kScopes = u"openid email https://www.googleapis.com/auth/webmasters.readonly"_s;
const auto kAuthUrl = u"https://accounts.google.com/o/oauth2/v2/auth"_s;
const QUrl kTokenUrl(u"https://oauth2.googleapis.com/token"_s);
const QUrl kRevokeUrl(u"https://oauth2.googleapis.com/revoke"_s);
const auto kApi = u"https://www.googleapis.com/webmasters/v3/sites"_s;

/// The outcome of an exchange over HTTP.
struct Reply
{
    int status = 0;   ///< 0 when there was no response
    QJsonObject json; ///< the body; empty when it is no JSON object
    QString error;    ///< why it failed, else empty
    bool isObject = false;
};

/// A site and what it is called at Google.
struct Site
{
    int id;
    QString property;
    QString host;
    QDate lastStored; ///< invalid when nothing is
};

/// False when there is no session after a wait. A session that was lost in the wait is opened again, since
/// the work behind the wait is not repeated.
bool haveDatabase()
{
    return db::ensure(false);
}

/// True when the statement that has just failed did so because the session is lost.
bool databaseIsLost()
{
    return !db::session().isOpen();
}

/// Runs @p statement with @p values. The result has to be read before anything waits for the network. Many of
/// these statements touch tarn.engine_accounts, whose row holds a secret.
QSqlQuery run(const QString& statement, const QStringList& values = {})
{
    QSqlQuery query;
    query.prepare(statement);
    for (const QString& value : values)
        query.addBindValue(db::storable(value));
    db::execSecret(query);
    return query;
}

/// The reason of a failed request: Google's own words, in the form of its APIs or in that of OAuth, else
/// @p fallback.
QString reasonOf(const QJsonObject& json, const QString& fallback)
{
    const QJsonValue error = json.value(u"error"_s);
    QString reason = error.isObject() ? error.toObject().value(u"message"_s).toString()
                                      : json.value(u"error_description"_s).toString();
    return reason.isEmpty() ? fallback : reason;
}

/// One request and its answer. A redirect is a failure: another server must not get the token or the form.
Reply call(http::Method verb, const QUrl& url, const QByteArray& body, const QByteArray& contentType,
           const QString& bearer)
{
    http::Request request{.method = verb, .url = url, .body = body, .encoding = http::Encoding::Compressed};
    if (!contentType.isEmpty())
        request.headers.append({"Content-Type", contentType});
    if (!bearer.isEmpty())
        request.headers.append({"Authorization", "Bearer " + bearer.toLatin1()});
    const http::Answer answer = http::exchange(request, kLimits);

    Reply reply;
    reply.status = answer.status;
    reply.error = http::problem(answer);
    const bool redirected = answer.status >= 300 && answer.status < 400;
    if (answer.failure == http::Failure::None && !redirected) {
        const QJsonDocument document = QJsonDocument::fromJson(answer.body);
        reply.isObject = document.isObject();
        reply.json = document.object();
        if (!reply.error.isEmpty())
            reply.error = reasonOf(reply.json, reply.error);
    }
    return reply;
}

/// Names and values as the body of a form, or as the query of a URL. Each is encoded by itself: a plus sign,
/// a percent sign or an ampersand of a value stays what it is.
QByteArray form(const QList<QPair<QString, QString>>& items)
{
    QByteArrayList pairs;
    for (const auto& [name, value] : items)
        pairs.append(QUrl::toPercentEncoding(name) + '=' + QUrl::toPercentEncoding(value));
    return pairs.join('&');
}

QString storedRefreshToken()
{
    QSqlQuery query = run(kRefreshTokenQuery);
    return query.next() ? query.value(0).toString() : QString();
}

/// Notes how a synchronisation ended, for the panel.
void record(const QString& result)
{
    run(kResultStorage, {result});
}

/// The account of an ID token ("header.payload.signature", each in URL-safe base64); empty when it cannot be
/// read. The token came from Google over TLS, so that its signature need not be verified.
QString emailOf(const QString& idToken)
{
    const QByteArray payload = idToken.toLatin1().split('.').value(1);
    const QByteArray json = QByteArray::fromBase64(payload, QByteArray::Base64UrlEncoding);
    return QJsonDocument::fromJson(json).object().value(u"email"_s).toString();
}

QString withoutWww(const QString& host)
{
    return host.startsWith("www."_L1) ? host.sliced(4) : host;
}

/// The host name by which a property is matched: "sc-domain:example.org" or
/// "https://www.example.org/shop/".
QString hostOf(const QString& property)
{
    const QString host = property.startsWith(kDomainPrefix) ? property.sliced(kDomainPrefix.size())
                                                            : hostName(splitUrl(property.toUtf8()).host);
    return withoutWww(host.toLower());
}

/// The properties of Google's list, by host name. A domain property, which covers every scheme and path, is
/// preferred to URLs of the same host. Among URLs the first is taken.
QHash<QString, QString> bestProperties(const QJsonArray& entries)
{
    QHash<QString, QString> best;
    for (const QJsonValue entry : entries) {
        const QString property = entry[u"siteUrl"].toString();
        if (entry[u"permissionLevel"].toString() == "siteUnverifiedUser"_L1)
            continue;
        const QString host = hostOf(property);
        if (!best.contains(host) || property.startsWith(kDomainPrefix))
            best.insert(host, property);
    }
    return best;
}

/// The property of @p best for a site. The name of a domain property may be written in ASCII ("xn--...")
/// where the site's is in Unicode.
QString propertyFor(const QHash<QString, QString>& best, const QString& siteHost)
{
    const QString name = withoutWww(siteHost);
    const QString property = best.value(name);
    const QString ascii = asciiName(name);
    return property.isEmpty() && !ascii.isEmpty() ? best.value(ascii) : property;
}

/// Stores for each site the property of the account that matches it. A site without a match keeps its
/// property. Empty on success, else why the properties could not be listed.
QString mapProperties(const QString& accessToken)
{
    const Reply reply = call(http::Method::Get, QUrl(kApi), {}, {}, accessToken);
    if (!reply.error.isEmpty())
        return reply.error;

    if (!haveDatabase())
        return kDatabaseLost;
    const QHash<QString, QString> best = bestProperties(reply.json.value(u"siteEntry"_s).toArray());
    QSqlQuery sites = run(kSiteHostsQuery);
    while (sites.next()) {
        const QString property = propertyFor(best, sites.value(1).toString());
        if (property.isEmpty())
            continue;
        QSqlQuery query;
        query.prepare(kPropertyStorage);
        query.addBindValue(sites.value(0).toInt());
        query.addBindValue(db::storable(property));
        if (!db::exec(query) && databaseIsLost())
            return kDatabaseLost;
    }
    return sites.isActive() || !databaseIsLost() ? QString() : kDatabaseLost;
}

/// An access token for the stored refresh token; empty when there is none. @p error is Google's objection, in
/// both cases.
QString accessToken(const Client& client, QString* error)
{
    const Reply reply = call(http::Method::Post, kTokenUrl,
                             form({
                                 {u"client_id"_s,     client.id           },
                                 {u"client_secret"_s, client.secret       },
                                 {u"refresh_token"_s, storedRefreshToken()},
                                 {u"grant_type"_s,    u"refresh_token"_s  }
    }),
                             kFormType, {});
    if (!reply.error.isEmpty())
        *error = u"Google refused the stored sign-in (%1). Connect again."_s.arg(reply.error);
    return reply.json.value(u"access_token"_s).toString();
}

/// One page of a property's figures, from row @p startRow on.
Reply query(const QString& token, const QString& property, const Window& window,
            const QStringList& dimensions, int startRow)
{
    const QJsonObject body{
        {u"startDate"_s,  window.from.toString(Qt::ISODate)     },
        {u"endDate"_s,    window.to.toString(Qt::ISODate)       },
        {u"dimensions"_s, QJsonArray::fromStringList(dimensions)},
        {u"rowLimit"_s,   kPageRows                             },
        {u"startRow"_s,   startRow                              },
        {u"dataState"_s,  u"all"_s                              }
    };
    const QString path = QString::fromLatin1(QUrl::toPercentEncoding(property));
    return call(http::Method::Post, QUrl(kApi + u'/' + path + u"/searchAnalytics/query"_s, QUrl::StrictMode),
                QJsonDocument(body).toJson(QJsonDocument::Compact), "application/json", token);
}

/// Why @p page is not a page of figures; empty when it is one.
QString problemOf(const Reply& page)
{
    return page.error.isEmpty() && !page.isObject ? u"the answer is no JSON object"_s : page.error;
}

/// All detail rows of a site. A page that fails ends them, and the rows before it are kept. The log says so:
/// no later synchronisation asks for rows that the first one missed.
QJsonArray detailRows(const QString& token, const Site& site, const Window& window)
{
    static const QStringList dimensions = {u"date"_s, u"query"_s, u"page"_s, u"country"_s, u"device"_s};
    QJsonArray rows;
    for (int start = 0; start < kMaxRows; start += kPageRows) {
        const Reply page = query(token, site.property, window, dimensions, start);
        const QString problem = problemOf(page);
        if (!problem.isEmpty()) {
            qWarning("collect: google: %s: page %d of the details failed, rows from %d on are missing: %s",
                     qPrintable(site.host), start / kPageRows + 1, start, qPrintable(problem));
            return rows;
        }
        const QJsonArray more = page.json.value(u"rows"_s).toArray();
        for (const QJsonValue row : more)
            rows.append(row);
        if (more.size() < kPageRows)
            return rows;
    }
    qWarning("collect: google: %s: details end with page %d, the last that is asked for: rows from %d on are "
             "missing",
             qPrintable(site.host), kMaxRows / kPageRows, kMaxRows);
    return rows;
}

/// Brings one site up to date; what became of it.
QString syncSite(const QString& token, const Site& site)
{
    const Window window = windowFor(site.lastStored, QDate::currentDate());
    const Reply totals = query(token, site.property, window, {u"date"_s}, 0);
    if (!totals.error.isEmpty())
        return totals.error;
    const QJsonArray rows = detailRows(token, site, window);
    const QJsonArray days = totals.json.value(u"rows"_s).toArray();
    if (days.isEmpty())
        return u"no new data"_s;
    if (!haveDatabase())
        return kDatabaseLost;
    bool ok = false;
    return importSearchData(site.id, u"google"_s,
                            {
                                {u"totals"_s, days},
                                {u"rows"_s,   rows}
    },
                            &ok);
}

/// All mapped sites; nothing when they cannot be read. They are read to the end at once, since a timer may
/// reconnect the session during a request.
std::optional<QList<Site>> mappedSites()
{
    QList<Site> sites;
    QSqlQuery query = run(kMappedSitesQuery);
    if (!query.isActive())
        return std::nullopt;
    while (query.next()) {
        sites.append({query.value(0).toInt(), query.value(1).toString(), query.value(2).toString(),
                      query.value(3).toDate()});
    }
    return sites;
}

/// Brings all sites up to date; what became of each.
QString syncSites(const QString& token)
{
    const std::optional<QList<Site>> sites = mappedSites();
    if (!sites)
        return databaseIsLost() ? kDatabaseLost : u"database error while reading the sites"_s;
    if (sites->isEmpty())
        return u"no Search Console property matches a site here"_s;
    qInfo("collect: synchronising %d sites with Google", static_cast<int>(sites->size()));
    QStringList results;
    for (const Site& site : *sites) {
        // The session can be lost while the site before is stored.
        const bool open = haveDatabase();
        results.append(site.host + u": "_s + (open ? syncSite(token, site) : kDatabaseLost));
        if (!open)
            break;
        // The rows of a large site take up to a gigabyte in small pieces. The allocator would keep that
        // memory.
        malloc_trim(0);
    }
    return results.join(u"; "_s);
}

} // namespace

Client clientFrom(const QSettings& settings)
{
    const auto text = [&settings](const Setting& setting) {
        return settingValue(settings, setting).toString();
    };
    return {.id = text(settingOf(kGoogleSettings, "google/client_id")).trimmed(),
            .secret = text(settingOf(kGoogleSettings, "google/client_secret")).trimmed(),
            .redirectUri = text(settingOf(kGoogleSettings, "web/public_url")) + u"/oauth/google/callback"_s};
}

QString authUrl(const Client& client, const QString& state)
{
    return kAuthUrl + u'?'
           + QString::fromLatin1(form({
               {u"client_id"_s,     client.id         },
               {u"redirect_uri"_s,  client.redirectUri},
               {u"response_type"_s, u"code"_s         },
               {u"scope"_s,         kScopes           },
               {u"access_type"_s,   u"offline"_s      },
               {u"prompt"_s,        u"consent"_s      },
               {u"state"_s,         state             }
    }));
}

QString connect(const Client& client, const QString& code)
{
    const Reply reply = call(http::Method::Post, kTokenUrl,
                             form({
                                 {u"code"_s,          code                   },
                                 {u"client_id"_s,     client.id              },
                                 {u"client_secret"_s, client.secret          },
                                 {u"redirect_uri"_s,  client.redirectUri     },
                                 {u"grant_type"_s,    u"authorization_code"_s}
    }),
                             kFormType, {});
    if (!reply.error.isEmpty())
        return reply.error;
    // The code works once. A lost session must not waste it.
    haveDatabase();
    const QString refresh = reply.json.value(u"refresh_token"_s).toString();
    if (refresh.isEmpty())
        return u"Google did not return a refresh token"_s;

    const bool stored = [&] {
        QSqlQuery query;
        query.prepare(kConnectionStorage);
        query.addBindValue(db::storable(emailOf(reply.json.value(u"id_token"_s).toString())));
        query.addBindValue(db::storable(refresh));
        return db::execSecret(query);
    }();
    if (!stored)
        return u"could not store the connection"_s;
    return mapProperties(reply.json.value(u"access_token"_s).toString());
}

void disconnect()
{
    const QString refresh = storedRefreshToken();
    // Best effort: if Google is not reached, the administrator can revoke the access there.
    if (!refresh.isEmpty()) {
        call(http::Method::Post, kRevokeUrl,
             form({
                 {u"token"_s, refresh}
        }),
             kFormType, {});
        haveDatabase();
    }
    run(kMappingDeletion);
    run(kConnectionDeletion);
}

QString sync(const Client& client)
{
    if (!client.configured())
        return kNotConnected;
    if (storedRefreshToken().isEmpty())
        return databaseIsLost() ? kDatabaseLost : kNotConnected;
    QString error;
    const QString token = accessToken(client, &error);
    if (!haveDatabase())
        return kDatabaseLost;
    if (!token.isEmpty())
        error = mapProperties(token);
    QString result = token.isEmpty() || !error.isEmpty() ? error : syncSites(token);
    if (!databaseIsLost())
        record(result);
    return result;
}

Window windowFor(QDate lastStored, QDate today)
{
    return {.from = lastStored.isValid() ? lastStored.addDays(-kAgainDays) : today.addMonths(-kFirstMonths),
            .to = today};
}

} // namespace tarn::analytics::google
