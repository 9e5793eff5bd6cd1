#include "support/TestAuthority.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QProcess>
#include <QSslConfiguration>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

namespace {

constexpr int kProgramMs = 60'000;

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

} // namespace

bool TestAuthority::openssl(const QStringList& arguments, QByteArray* output) const
{
    QProcess program;
    program.setWorkingDirectory(m_folder.path());
    program.start(u"openssl"_s, arguments);
    const bool ended = program.waitForFinished(kProgramMs);
    if (!ended || program.exitCode() != 0) {
        qWarning("openssl failed: %s %s", qPrintable(program.errorString()),
                 program.readAllStandardError().constData());
        return false;
    }
    if (output)
        *output = program.readAllStandardOutput();
    return true;
}

bool TestAuthority::make(const QStringList& hosts)
{
    const QStringList newKey = {u"-newkey"_s, u"ec"_s, u"-pkeyopt"_s, u"ec_paramgen_curve:prime256v1"_s,
                                u"-nodes"_s};
    QStringList names;
    for (const QString& host : hosts)
        names.append((QHostAddress(host).isNull() ? u"DNS:"_s : u"IP:"_s) + host);
    const QByteArray extensions = "subjectAltName=" + names.join(u',').toLatin1() + '\n';
    const bool made =
        writeFile(m_folder.filePath(u"extensions"_s), extensions)
        && openssl(QStringList{u"req"_s, u"-x509"_s, u"-subj"_s, u"/CN=tarn test authority"_s, u"-days"_s,
                               u"2"_s, u"-keyout"_s, u"authority.key"_s, u"-out"_s, u"authority.pem"_s}
                   + newKey)
        && openssl(QStringList{u"req"_s, u"-subj"_s, u"/CN=tarn test host"_s, u"-keyout"_s, u"host.key"_s,
                               u"-out"_s, u"host.csr"_s}
                   + newKey)
        && openssl({u"x509"_s, u"-req"_s, u"-in"_s, u"host.csr"_s, u"-CA"_s, u"authority.pem"_s, u"-CAkey"_s,
                    u"authority.key"_s, u"-CAcreateserial"_s, u"-days"_s, u"2"_s, u"-extfile"_s,
                    u"extensions"_s, u"-out"_s, u"host.pem"_s});
    QByteArray hash;
    if (!made
        || !openssl({u"x509"_s, u"-in"_s, u"authority.pem"_s, u"-noout"_s, u"-subject_hash"_s}, &hash)) {
        return false;
    }
    QDir().mkpath(folder());
    QFile::copy(file(), folder() + u'/' + QString::fromLatin1(hash.trimmed()) + u".0"_s);
    m_certificate = QSslCertificate(contents(certificateFile()));
    m_key = QSslKey(contents(keyFile()), QSsl::Ec);
    return !m_certificate.isNull() && !m_key.isNull();
}

void TestAuthority::trust() const
{
    trust(file());
}

void TestAuthority::trust(const QString& authorityFile)
{
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setCaCertificates(QSslCertificate::fromPath(authorityFile));
    QSslConfiguration::setDefaultConfiguration(configuration);
}

void TestAuthority::trustSystem()
{
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setCaCertificates(QSslConfiguration::systemCaCertificates());
    QSslConfiguration::setDefaultConfiguration(configuration);
}

QString TestAuthority::certificateFile() const
{
    return m_folder.filePath(u"host.pem"_s);
}

QString TestAuthority::keyFile() const
{
    return m_folder.filePath(u"host.key"_s);
}

QString TestAuthority::file() const
{
    return m_folder.filePath(u"authority.pem"_s);
}

QString TestAuthority::folder() const
{
    return m_folder.filePath(u"trusted"_s);
}

} // namespace tarn::test
