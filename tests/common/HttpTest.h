// What the tests of HTTP share: a server on loopback, one more behind TLS, and requests to them. A test class
// inherits this one.
#pragma once

#include "common/Http.h"
#include "support/FakeHttp.h"
#include "support/TestAuthority.h"

#include <QNetworkProxy>
#include <QObject>
#include <QRegularExpression>
#include <QTest>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;
using tarn::http::Answer;
using tarn::http::Failure;
using tarn::http::Limits;

/// Bounds what a test waits for; what it is about comes much earlier.
inline constexpr int kEnoughMs = 20'000;
inline constexpr qint64 kBodyBytes = 10'000;

/// What the kernel takes off a flood that nobody reads, and what the reader takes before it stops.
inline constexpr qint64 kFloodedBytes = 16'777'216;

inline constexpr Limits kLimits{.silenceMs = kEnoughMs, .totalMs = kEnoughMs, .bodyBytes = kBodyBytes};

inline Answer get(const QString& url, const Limits& limits = kLimits)
{
    return tarn::http::exchange({.url = QUrl(url)}, limits);
}

class HttpTest : public QObject
{
protected:
    void beginProgram()
    {
        QTest::failOnWarning(QRegularExpression(u".*"_s));
        QVERIFY(m_authority.make({u"127.0.0.1"_s}));
        QVERIFY(m_web.start());
        QVERIFY(m_secure.start(m_authority));
    }

    void beginTest() { m_authority.trust(); }

    void endTest()
    {
        QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::DefaultProxy));
        m_web.reset();
        m_secure.reset();
    }

    void compare(const Answer& answer, Failure failure, const QString& error)
    {
        QCOMPARE(answer.error, error);
        QCOMPARE(answer.failure, failure);
        QCOMPARE(answer.body, QByteArray());
    }

    FakeHttp m_web;
    FakeHttp m_secure;
    TestAuthority m_authority;
};

} // namespace tarn::test
