// The one connection of this installation to Google Search Console: made and ended for the panel, used by the
// collector to fetch each site's search figures. Storing the figures is importSearchData()'s; the connection
// itself is the row 'google' of tarn.engine_accounts.
//
// Uses the default database session, never with a transaction open. Each request blocks its caller in a local
// event loop, so that timers and notifications are served meanwhile. Main thread only.
#pragma once

#include <QDate>
#include <QString>

class QSettings;

namespace tarn::analytics::google {

/// How Google knows this installation: an "OAuth 2.0 client" of type web application, as the Google Cloud
/// console shows it (https://developers.google.com/identity/protocols/oauth2/web-server).
struct Client
{
    QString id;          ///< "1234-abc.apps.googleusercontent.com"; empty: not configured
    QString secret;      ///< never logged; empty: not configured
    QString redirectUri; ///< where Google sends the administrator back to, as registered with the client

    bool configured() const { return !id.isEmpty() && !secret.isEmpty(); }
};

/// The days that are asked for, both included.
struct Window
{
    QDate from;
    QDate to;
};

/// Reads kGoogleSettings. Id and secret are trimmed; the address to return to is `web/public_url` followed by
/// "/oauth/google/callback".
Client clientFrom(const QSettings& settings);

/// The address of Google's consent screen. @p state comes back unchanged with the administrator, next to the
/// code that connect() wants.
QString authUrl(const Client& client, const QString& state);

/// Exchanges the authorization @p code for a refresh token, which replaces an earlier one. Then maps the
/// properties of the account to sites. Empty on success, else the reason. When only the mapping failed,
/// the connection is stored nevertheless.
QString connect(const Client& client, const QString& code);

/// Forgets the connection and the mapping, here and, if it can be reached, at Google. Imported figures are
/// kept.
void disconnect();

/// Brings the figures of every mapped site up to date. The line that it returns, one entry per site, is also
/// stored as the connection's last result; "not connected" is not.
QString sync(const Client& client);

/// What sync() asks for on the day @p today: 16 months at first, then from ten days before @p lastStored,
/// since Google corrects its latest figures for some days. An invalid @p lastStored means that nothing is
/// stored.
Window windowFor(QDate lastStored, QDate today);

/// Id, property, host and last stored day of each mapped site.
inline const QString kMappedSitesQuery = QStringLiteral(
    "SELECT p.site_id, p.property, s.host, (SELECT max(day) FROM tarn.search_days d  WHERE d.site_id "
    "= p.site_id AND d.engine = 'google') FROM tarn.search_properties p JOIN tarn.sites s ON s.id = "
    "p.site_id WHERE p.engine = 'google' ORDER BY s.host");
/// The refresh token of the connection.
inline const QString kRefreshTokenQuery =
    QStringLiteral("SELECT refresh_token FROM tarn.engine_accounts WHERE engine = 'google'");
/// Notes how a synchronisation ended: the line that sync() returns.
inline const QString kResultStorage = QStringLiteral(
    "UPDATE tarn.engine_accounts SET last_sync_at = now(), last_result = ? WHERE engine = 'google'");
/// All sites, mapped or not.
inline const QString kSiteHostsQuery = QStringLiteral("SELECT id, host FROM tarn.sites");
/// Maps a site to a property: its id and the property.
inline const QString kPropertyStorage = QStringLiteral(
    "INSERT INTO tarn.search_properties VALUES (?, 'google', ?) ON CONFLICT (site_id, engine) DO "
    "UPDATE SET property = excluded.property");
/// Stores the connection: its account and refresh token.
inline const QString kConnectionStorage = QStringLiteral(
    "INSERT INTO tarn.engine_accounts (engine, account_email, refresh_token) VALUES ('google', ?, ?) "
    "ON CONFLICT (engine) DO UPDATE SET account_email = excluded.account_email, refresh_token = "
    "excluded.refresh_token, connected_at = now(), last_result = NULL");
/// Forgets the mapping.
inline const QString kMappingDeletion =
    QStringLiteral("DELETE FROM tarn.search_properties WHERE engine = 'google'");
/// Forgets the connection.
inline const QString kConnectionDeletion =
    QStringLiteral("DELETE FROM tarn.engine_accounts WHERE engine = 'google'");

} // namespace tarn::analytics::google
