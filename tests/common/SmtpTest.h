// What the tests of mail share: one message, the settings of a mail server on loopback, and the authorities
// of its certificates. A test class with servers inherits this one.
#pragma once

#include "common/Notify.h"
#include "support/TestAuthority.h"

#include <QObject>
#include <QTest>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;
using notify::Config;

inline const auto kSubject = u"[web1] Memory 93% used"_s;
inline const auto kText = u"Memory 93% used on web1.\n\nTime: 2024-06-15 09:30 UTC"_s;
inline const auto kStopped = u"mail server stopped answering"_s;

/// Longer than anything takes that does not wait out the client's 10 seconds.
inline constexpr qint64 kPromptMs = 9'500;
inline constexpr qint64 kWaitMs = 10'000;

inline Config mailConfig()
{
    Config config;
    config.host = u"web1"_s;
    config.smtpHost = u"127.0.0.1"_s;
    config.smtpSecurity = u"none"_s;
    config.mailFrom = u"tarn@example.org"_s;
    config.mailTo = QStringList{u"admin@example.org"_s};
    return config;
}

class SmtpTest : public QObject
{
protected:
    /// Has this process trust both authorities.
    void makeAuthorities()
    {
        QVERIFY(m_authority.make({u"127.0.0.1"_s, u"localhost"_s}));
        QVERIFY(m_otherName.make({u"mail.test"_s}));
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setCaCertificates(QSslCertificate::fromPath(m_authority.file())
                                        + QSslCertificate::fromPath(m_otherName.file()));
        QSslConfiguration::setDefaultConfiguration(configuration);
    }

    test::TestAuthority m_authority;
    test::TestAuthority m_otherName; ///< mail.test
};

} // namespace tarn::test
