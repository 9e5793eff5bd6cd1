#include "common/HttpPeer.h"

#include <QDir>
#include <QNetworkProxyFactory>
#include <QNetworkProxyQuery>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QUrl>

#include <array>

using namespace Qt::Literals::StringLiterals;

namespace tarn::http {

namespace {

/// Where Qt's TLS backend looks authorities up.
constexpr auto kAuthorityFolders = std::to_array({
    "/etc/ssl/certs",
    "/usr/lib/ssl/certs",
    "/usr/share/ssl",
    "/usr/local/ssl",
    "/var/ssl/certs",
    "/usr/local/ssl/certs",
    "/etc/openssl/certs",
    "/opt/openssl/certs",
    "/etc/ssl",
});

} // namespace

bool isEncrypted(const QUrl& url)
{
    return url.scheme() == u"https"_s;
}

std::optional<QNetworkProxy> proxyFor(const QUrl& url)
{
    const QList<QNetworkProxy> proxies = QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(url));
    for (const QNetworkProxy& proxy : proxies) {
        const bool forwards =
            !isEncrypted(url) && proxy.isCachingProxy()
            && (proxy.type() == QNetworkProxy::HttpProxy || proxy.type() == QNetworkProxy::HttpCachingProxy);
        if (forwards || proxy.isTransparentProxy())
            return proxy;
    }
    return std::nullopt;
}

QByteArray addressOf(const QNetworkProxy& proxy)
{
    if (proxy.type() == QNetworkProxy::NoProxy || proxy.type() == QNetworkProxy::DefaultProxy)
        return "";
    QUrl address;
    // The proxy looks names up.
    address.setScheme(proxy.type() == QNetworkProxy::Socks5Proxy ? u"socks5h"_s : u"http"_s);
    address.setHost(proxy.hostName());
    address.setPort(proxy.port());
    return address.toEncoded();
}

QByteArray authorities()
{
    QByteArray pem;
    const QList<QSslCertificate> all = QSslConfiguration::defaultConfiguration().caCertificates();
    for (const QSslCertificate& authority : all)
        pem += authority.toPem();
    return pem;
}

QByteArray authorityFolders()
{
    QByteArrayList folders;
    for (const char* folder : kAuthorityFolders) {
        if (QDir(QString::fromLatin1(folder)).exists())
            folders.append(folder);
    }
    return folders.join(':');
}

} // namespace tarn::http
