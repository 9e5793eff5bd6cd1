// Which proxy stands between a request and its server, and which authorities are trusted for the server's
// certificate: both as Qt has them, in the form that libcurl takes. Private to the HTTP unit.
#pragma once

#include <QByteArray>
#include <QNetworkProxy>

#include <optional>

class QUrl;

namespace tarn::http {

bool isEncrypted(const QUrl& url);

/// Of the proxies that Qt names for @p url the first that can be used, as Qt's own client chooses; one of
/// type NoProxy for a direct connection. Nothing when Qt knows proxies and none of them can be used.
std::optional<QNetworkProxy> proxyFor(const QUrl& url);

/// "http://proxy.example.org:3128", "socks5h://[::1]:1080"; empty for a direct connection.
QByteArray addressOf(const QNetworkProxy& proxy);

/// The certificates of QSslConfiguration::defaultConfiguration() in PEM; empty when it names none, so that
/// those in authorityFolders() count.
QByteArray authorities();

/// The system's folders of authorities that exist, with colons between them. Each authority is looked up when
/// it is needed, by the hash of its name.
QByteArray authorityFolders();

} // namespace tarn::http
