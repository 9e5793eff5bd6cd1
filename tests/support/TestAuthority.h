// A certificate authority for one run of the tests, and a certificate of it for a server; made by the openssl
// program.
#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QStringList>
#include <QTemporaryDir>

namespace tarn::test {

class TestAuthority
{
public:
    /// Makes both; @p hosts are the names and IPv4 addresses that the server's certificate is good for.
    /// False, with a warning that says why, when that fails.
    bool make(const QStringList& hosts);

    /// Has this process trust this authority alone; until @ref trustSystem.
    void trust() const;
    /// The same for a process that knows no more than the authority's file.
    static void trust(const QString& authorityFile);
    static void trustSystem();

    /// The server's.
    const QSslCertificate& certificate() const { return m_certificate; }
    const QSslKey& key() const { return m_key; }
    QString certificateFile() const;
    QString keyFile() const;

    /// The authority's certificate, PEM.
    QString file() const;
    /// A folder that holds the authority's certificate alone, under the name by which OpenSSL looks it up.
    QString folder() const;

private:
    bool openssl(const QStringList& arguments, QByteArray* output = nullptr) const;

    QTemporaryDir m_folder;
    QSslCertificate m_certificate;
    QSslKey m_key;
};

} // namespace tarn::test
