// What the tests of the notification channels share: a webhook and a mail server on loopback, and one message
// to send. A test class inherits this one.
#pragma once

#include "common/Notify.h"
#include "support/FakeHttp.h"
#include "support/TestAuthority.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QObject>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;
using notify::Config;
using notify::Message;

inline const Message kAlert{u"memory"_s, u"RAM"_s, u"Memory 93% used"_s};

inline QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

inline QByteArray compact(const QJsonArray& array)
{
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

/// @p text without what the clock decides.
inline QByteArray timeless(const QByteArray& text)
{
    static const QRegularExpression time(u"Time: \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d UTC"_s);
    static const QRegularExpression at(u"\"at\":\\d{10},"_s);
    QString plain = QString::fromUtf8(text);
    return plain.replace(time, u"Time: <time>"_s).replace(at, u"\"at\":<seconds>,"_s).toUtf8();
}

class NotifyTest : public QObject
{
protected:
    void beginProgram()
    {
        QVERIFY(m_web.start());
        QVERIFY(m_authority.make({u"127.0.0.1"_s}));
    }

    void beginTest() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void endTest()
    {
        m_web.reset();
        QLocale::setDefault(QLocale::c());
    }

    static void expectWarning(const QString& text) { QTest::ignoreMessage(QtWarningMsg, qPrintable(text)); }

    /// The error of the only channel, whose failure is in the log too; empty when it has succeeded.
    static QString errorOf(const Config& config, const QString& logged = {})
    {
        const QString channel = config.webhookUrl.isEmpty() ? u"email"_s : u"webhook"_s;
        if (!logged.isEmpty())
            expectWarning(u"notify: %1 failed: %2"_s.arg(channel, logged));
        const QJsonArray report = notify::send(config, kAlert);
        const QJsonObject entry = report.at(0).toObject();
        const bool isRight = report.size() == 1 && entry[u"channel"].toString() == channel
                             && entry[u"ok"].toBool() != entry.contains(u"error");
        return isRight ? entry[u"error"].toString() : u"odd report: "_s + QString::fromUtf8(compact(report));
    }

    /// A port on which nobody listens.
    static quint16 freePort()
    {
        QTcpServer gone;
        gone.listen(QHostAddress::LocalHost);
        return gone.serverPort();
    }

    FakeHttp m_web;
    test::TestAuthority m_authority;
    QTemporaryDir m_folder;
};

} // namespace tarn::test
