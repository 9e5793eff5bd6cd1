#include "support/MailTools.h"

#include "support/TestAuthority.h"

#include <QJsonDocument>

#include <csignal>
#include <sys/prctl.h>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

namespace {

constexpr int kProgramMs = 30'000;

/// Debian's own: another that stands before it on the path lacks Debian's packages.
const auto kPython = u"/usr/bin/python3"_s;

QString program(const QString& name)
{
    return QStringLiteral(TARN_TEST_SUPPORT_DIR) + u'/' + name;
}

QJsonObject object(const QByteArray& json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace

QJsonObject parsedMail(const QByteArray& mail)
{
    QProcess process;
    process.start(kPython, {program(u"parse-mail.py"_s)});
    process.write(mail);
    process.closeWriteChannel();
    process.waitForFinished(kProgramMs);
    QJsonObject parsed = object(process.readAllStandardOutput());
    if (parsed.isEmpty())
        qWarning("%s", process.readAllStandardError().constData());
    return parsed;
}

MailServer::~MailServer()
{
    m_process.kill();
    m_process.waitForFinished(kProgramMs);
}

bool MailServer::start(const TestAuthority& authority, const QString& password)
{
    m_process.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
    m_process.start(kPython, {program(u"mail-server.py"_s), authority.certificateFile(), authority.keyFile(),
                              u"alerts"_s, password});
    while (!m_process.canReadLine()) {
        if (!m_process.waitForReadyRead(kProgramMs)) {
            qWarning("%s", m_process.readAllStandardError().constData());
            return false;
        }
    }
    m_port = m_process.readLine().trimmed().toUShort();
    return m_port != 0;
}

QJsonObject MailServer::nextMail()
{
    while (!m_process.canReadLine()) {
        if (!m_process.waitForReadyRead(kProgramMs))
            return {};
    }
    return object(m_process.readLine());
}

} // namespace tarn::test
