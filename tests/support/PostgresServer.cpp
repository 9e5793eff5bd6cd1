#include "support/PostgresServer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSqlError>
#include <QSqlQuery>
#include <QStandardPaths>
#include <QTest>

#include <csignal>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

namespace {

constexpr int kStartMs = 60'000;

/// The server's programs: Debian keeps them out of the search path, in a folder per version.
QString findPrograms()
{
    const QDir versions(u"/usr/lib/postgresql"_s);
    const QStringList found =
        versions.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name | QDir::Reversed);
    for (const QString& version : found) {
        QString folder = versions.filePath(version + u"/bin"_s);
        if (QFile::exists(folder + u"/initdb"_s))
            return folder;
    }
    return QFileInfo(QStandardPaths::findExecutable(u"initdb"_s)).absolutePath();
}

/// The server refuses to run as root: there it runs as the user that Debian's package has made for it.
const passwd* serverUser()
{
    static const passwd* user = geteuid() == 0 ? getpwnam("postgres") : nullptr;
    return user;
}

void dropPrivileges()
{
    if (const passwd* user = serverUser()) {
        if (setgroups(0, nullptr) != 0 || setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0)
            _exit(126);
    }
    // After the change of user, which clears it. SIGQUIT is the server's immediate shutdown.
    prctl(PR_SET_PDEATHSIG, SIGQUIT);
}

} // namespace

PostgresServer::PostgresServer()
    // Straight under /tmp: the path of a socket holds 107 bytes.
    : m_folder(u"/tmp/tarn-test-XXXXXX"_s)
    , m_programs(findPrograms())
{
    m_process.setChildProcessModifier(dropPrivileges);
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.setStandardOutputFile(QProcess::nullDevice());
}

PostgresServer::~PostgresServer()
{
    stop();
}

QString PostgresServer::program(const QString& name) const
{
    return m_programs + u'/' + name;
}

QString PostgresServer::socketFolder() const
{
    return m_folder.path();
}

bool PostgresServer::start()
{
    return initialise() && restart();
}

bool PostgresServer::initialise()
{
    // The socket is for everybody, as that of an installed server is; the data folder has modes of its own.
    QFile::setPermissions(m_folder.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                               | QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther
                                               | QFile::ExeOther);
    if (const passwd* user = serverUser()) {
        if (chown(qPrintable(m_folder.path()), user->pw_uid, user->pw_gid) != 0) {
            qWarning("cannot give %s to the user postgres", qPrintable(m_folder.path()));
            return false;
        }
    }
    QProcess initdb;
    initdb.setChildProcessModifier(dropPrivileges);
    initdb.setProcessChannelMode(QProcess::MergedChannels);
    initdb.start(program(u"initdb"_s),
                 {u"--no-sync"_s, u"--no-instructions"_s, u"--auth=trust"_s, u"--username=postgres"_s,
                  u"--encoding=UTF8"_s, u"--locale=C.UTF-8"_s, u"--pgdata"_s, m_folder.filePath(u"data"_s)});
    if (!initdb.waitForFinished(kStartMs) || initdb.exitCode() != 0) {
        qWarning("initdb failed: %s", initdb.readAll().constData());
        return false;
    }
    return true;
}

bool PostgresServer::restart()
{
    m_process.start(program(u"postgres"_s),
                    {u"-D"_s, m_folder.filePath(u"data"_s), u"-k"_s, m_folder.path(), u"-p"_s, u"5432"_s,
                     u"-c"_s, u"listen_addresses="_s, u"-c"_s, u"fsync=off"_s, u"-c"_s,
                     u"max_connections=50"_s, u"-c"_s, u"shared_buffers=64MB"_s, u"-c"_s,
                     u"logging_collector=on"_s, u"-c"_s, u"log_filename=server.log"_s});
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < kStartMs && m_process.state() != QProcess::NotRunning) {
        const QSqlDatabase probe = connect(u"postgres"_s, u"tarn_test_probe"_s);
        if (probe.isOpen())
            return true;
        m_process.waitForFinished(20);
    }
    qWarning("the test's database server did not start; see %s/data/log", qPrintable(m_folder.path()));
    m_folder.setAutoRemove(false);
    return false;
}

void PostgresServer::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    ::kill(static_cast<pid_t>(m_process.processId()), SIGINT);
    m_process.waitForFinished(kStartMs);
}

void PostgresServer::kill()
{
    ::kill(static_cast<pid_t>(m_process.processId()), SIGQUIT);
    m_process.waitForFinished(kStartMs);
}

QString PostgresServer::createDatabase()
{
    if (!m_haveTemplate) {
        const QSqlDatabase admin = connect(u"postgres"_s, u"tarn_test_admin"_s);
        run(admin, u"CREATE DATABASE tarn_template"_s);
        const QString errors = runFile(u"tarn_template"_s, schemaFile(u"tarn.sql"_s));
        if (!errors.isEmpty())
            qFatal("the schema does not load: %s", qPrintable(errors));
        m_haveTemplate = true;
    }
    QString name = u"tarn_%1"_s.arg(++m_databases);
    run(connect(u"postgres"_s, u"tarn_test_admin"_s),
        u"CREATE DATABASE %1 TEMPLATE tarn_template"_s.arg(name));
    return name;
}

QString PostgresServer::createEmptyDatabase()
{
    QString name = u"tarn_%1"_s.arg(++m_databases);
    run(connect(u"postgres"_s, u"tarn_test_admin"_s), u"CREATE DATABASE "_s + name);
    return name;
}

QString PostgresServer::runFile(const QString& database, const QString& file,
                                const QStringList& options) const
{
    QProcess psql;
    psql.start(u"psql"_s, QStringList{u"-X"_s, u"-q"_s, u"-h"_s, m_folder.path(), u"-U"_s, u"postgres"_s,
                                      u"-d"_s, database, u"-v"_s, u"ON_ERROR_STOP=1"_s}
                              + options + QStringList{u"-f"_s, file});
    if (!psql.waitForFinished(kStartMs))
        return u"psql did not run: "_s + psql.errorString();
    const QString errors = QString::fromUtf8(psql.readAllStandardError());
    return psql.exitCode() == 0 ? QString() : u"psql failed: "_s + errors;
}

QString PostgresServer::log() const
{
    QFile file(m_folder.filePath(u"data/log/server.log"_s));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QStringList PostgresServer::logBetween(const QString& start, const QString& end) const
{
    const QString all = log();
    const qsizetype from = all.lastIndexOf(start);
    const qsizetype to = from < 0 ? -1 : all.indexOf(end, from);
    return to < 0 ? QStringList() : all.sliced(from, to - from).split(u'\n');
}

QSqlDatabase PostgresServer::connect(const QString& database, const QString& connection,
                                     const QString& user) const
{
    QSqlDatabase session = QSqlDatabase::contains(connection)
                               ? QSqlDatabase::database(connection, false)
                               : QSqlDatabase::addDatabase(u"QPSQL"_s, connection);
    session.close();
    session.setHostName(m_folder.path());
    session.setDatabaseName(database);
    session.setUserName(user);
    session.open();
    return session;
}

QString schemaFile(const QString& name)
{
    return QStringLiteral(TARN_SCHEMA_DIR "/") + name;
}

QString value(const QSqlDatabase& database, const QString& statement)
{
    QSqlQuery query(database);
    if (!query.exec(statement)) {
        QTest::qFail(qPrintable(statement + u": "_s + query.lastError().text()), __FILE__, __LINE__);
        return {};
    }
    if (!query.next())
        return u"no row"_s;
    return query.isNull(0) ? u"NULL"_s : query.value(0).toString();
}

void run(const QSqlDatabase& database, const QString& statement)
{
    QSqlQuery query(database);
    if (!query.exec(statement))
        QTest::qFail(qPrintable(statement + u": "_s + query.lastError().text()), __FILE__, __LINE__);
}

} // namespace tarn::test
