#include "support/Collector.h"

#include "support/FakeHosts.h"
#include "support/PostgresServer.h"

#include <QDate>
#include <QFile>
#include <QTest>
#include <QTextStream>

#include <csignal>
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

namespace {

constexpr int kExitMs = 60'000;
constexpr int kLogMs = 30'000;

/// The lowest port: nobody listens there, and only root could.
const auto kNowhere = u"http://127.0.0.1:1"_s;

/// Where Debian's OpenSSL, and Qt with it, looks certificates up by their names' hashes.
constexpr auto kCertificates = "/etc/ssl/certs";
/// The exit status of a child that could not be set up.
constexpr int kNotSetUp = 126;
const QByteArray kDeny = "deny";

bool write(const char* path, const QByteArray& text)
{
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    const ssize_t written = ::write(file, text.constData(), static_cast<size_t>(text.size()));
    close(file);
    return written == text.size();
}

/// What a child is told before it becomes the collector. It does it on a stack of 4 kB and in the memory of
/// the test: with nothing but system calls, on texts that are ready.
struct ChildSetUp
{
    QByteArray authorityFolder; ///< empty for the system's certificates
    bool obeysFileModes = false;
    int namespaces = CLONE_NEWNS;
    QByteArray userMap = {};
    QByteArray groupMap = {};
};

ChildSetUp childSetUp(const QByteArray& authorityFolder, bool obeysFileModes)
{
    ChildSetUp setUp{.authorityFolder = authorityFolder, .obeysFileModes = obeysFileModes};
    if (geteuid() != 0) {
        // An ordinary user may mount in a namespace where it rules, and where it is still known as itself.
        setUp.namespaces |= CLONE_NEWUSER;
        setUp.userMap = QByteArray::number(geteuid()) + ' ' + QByteArray::number(geteuid()) + " 1";
        setUp.groupMap = QByteArray::number(getegid()) + ' ' + QByteArray::number(getegid()) + " 1";
    }
    return setUp;
}

/// Puts the authority in the place of the system's, for the calling process and its children alone.
bool hideCertificates(const ChildSetUp& setUp)
{
    return unshare(setUp.namespaces) == 0
           && (setUp.userMap.isEmpty()
               || (write("/proc/self/setgroups", kDeny) && write("/proc/self/uid_map", setUp.userMap)
                   && write("/proc/self/gid_map", setUp.groupMap)))
           && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
           && mount(setUp.authorityFolder.constData(), kCertificates, nullptr, MS_BIND, nullptr) == 0;
}

void become(const ChildSetUp& setUp)
{
    if (!setUp.authorityFolder.isEmpty() && !hideCertificates(setUp))
        _exit(kNotSetUp);
    if (setUp.obeysFileModes) {
        prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
        prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
    }
    // After a change of rights, which clears it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

} // namespace

Collector::Collector() = default;

Collector::~Collector()
{
    kill();
}

void Collector::obeyFileModes()
{
    m_obeysFileModes = true;
}

void Collector::trust(const FakeHosts& hosts)
{
    m_authorityFolder = hosts.authority().folder().toLocal8Bit();
    environment[u"https_proxy"_s] = hosts.proxyUrl();
    environment[u"no_proxy"_s] = QString();

    // A child that does not come up would only look like a collector that ends by itself.
    const ChildSetUp setUp = childSetUp(m_authorityFolder, false);
    const pid_t probe = fork();
    if (probe == 0) {
        become(setUp);
        _exit(0);
    }
    int status = 0;
    if (probe < 0 || waitpid(probe, &status, 0) != probe || status != 0) {
        qFatal("this kernel or container gives a test no certificates of its own; run as root, or allow "
               "user namespaces (sysctl kernel.unprivileged_userns_clone=1)");
    }
}

QString Collector::useNewDatabase(PostgresServer& server)
{
    QString name = server.createDatabase();
    run(server.connect(name, u"tarn_test_new"_s),
        u"INSERT INTO tarn.settings VALUES ('geoip_month', '%1')"_s.arg(
            QDate::currentDate().toString(u"yyyy-MM"_s)));
    QSqlDatabase::removeDatabase(u"tarn_test_new"_s);
    agent.setAnswer(u"hosting.usage"_s, AgentAnswer::good({
                                            {u"ok"_s, true}
    }));
    if (!agent.start())
        qFatal("the agent does not start");
    settings = {
        {u"database/host"_s,              server.socketFolder()},
        {u"database/name"_s,              name                 },
        {u"database/user"_s,              u"postgres"_s        },
        {u"agent/socket"_s,               agent.socketPath()   },
        {u"health/apache_status_url"_s,   QString()            },
        {u"health/services"_s,            QString()            },
        {u"health/disk_alert_pct"_s,      u"1000"_s            },
        {u"health/memory_alert_pct"_s,    u"1000"_s            },
        {u"health/load_alert_per_cpu"_s,  u"1e9"_s             },
        {u"health/temperature_alert_c"_s, u"1e9"_s             },
    };
    return name;
}

QString Collector::settingsPath() const
{
    return m_folder.filePath(u"tarnhold.ini"_s);
}

void Collector::start()
{
    QFile file(settingsPath());
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(settingsPath()));
    QTextStream out(&file);
    for (auto it = settings.cbegin(); it != settings.cend(); ++it) {
        const QStringList parts = it.key().split(u'/');
        out << '[' << parts.at(0) << "]\n" << parts.at(1) << '=' << it.value() << '\n';
    }
    out.flush();
    file.close();
    startWith({u"--config"_s, settingsPath()});
}

void Collector::startWith(const QStringList& arguments)
{
    m_errors.clear();
    m_output.clear();
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    variables.insert(u"https_proxy"_s, kNowhere);
    variables.insert(u"http_proxy"_s, kNowhere);
    for (auto it = environment.cbegin(); it != environment.cend(); ++it)
        variables.insert(it.key(), it.value());
    m_process.setProcessEnvironment(variables);
    m_process.setChildProcessModifier(
        [setUp = childSetUp(m_authorityFolder, m_obeysFileModes)] { become(setUp); });
    m_process.start(QStringLiteral(TARN_COLLECT_BINARY), arguments);
    if (!m_process.waitForStarted())
        qFatal("cannot start %s", TARN_COLLECT_BINARY);
}

int Collector::waitForExit()
{
    if (m_process.state() != QProcess::NotRunning && !m_process.waitForFinished(kExitMs))
        return -1;
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

void Collector::terminate()
{
    m_process.terminate();
    m_process.waitForFinished(kExitMs);
}

void Collector::kill()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished(kExitMs);
}

bool Collector::isRunning() const
{
    return m_process.state() == QProcess::Running;
}

qint64 Collector::processId() const
{
    return m_process.processId();
}

QStringList Collector::log()
{
    m_errors += m_process.readAllStandardError();
    return QString::fromUtf8(m_errors).split(u'\n', Qt::SkipEmptyParts);
}

QString Collector::output()
{
    m_output += m_process.readAllStandardOutput();
    return QString::fromUtf8(m_output);
}

double Collector::cpuSeconds() const
{
    QFile file(u"/proc/%1/stat"_s.arg(processId()));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    // The second field is the program's name in parentheses; user and system time are the 14th and 15th.
    const QByteArray stat = file.readAll();
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    return (fields.at(11).toDouble() + fields.at(12).toDouble()) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

bool Collector::waitForLog(const QString& text, qsizetype count)
{
    return QTest::qWaitFor([&] { return log().filter(text).size() >= count; }, kLogMs);
}

} // namespace tarn::test
