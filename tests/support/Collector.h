// The collector's binary as a child process, with a settings file of its own and its log at hand.
#pragma once

#include "support/FakeAgent.h"

#include <QMap>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

namespace tarn::test {

class FakeHosts;
class PostgresServer;

class Collector
{
public:
    Collector();
    ~Collector();

    /// Keys and values of the settings file, as `section/key`; written when the collector is started.
    QMap<QString, QString> settings;
    /// Variables of the child's environment, over the test's own. Without any, what leaves this machine is
    /// sent to a port that nobody listens at.
    QMap<QString, QString> environment;

    /// The suite's agent, once a database is used; it knows of no account.
    FakeAgent agent;

    /// Makes a database on @p server, writes settings with it, and returns its name. It has the countries of
    /// this month, so that a collector does not download them. The settings leave nothing of the host to be
    /// alarmed about.
    QString useNewDatabase(PostgresServer& server);

    /// Run as somebody whom file modes bind, also where the tests run as root. To be set before it is
    /// started.
    void obeyFileModes();
    /// Has its requests answered by @p hosts, whose certificates are the only ones that it believes: it gets
    /// a mount namespace of its own, in which they stand in the system's place. The fake answers while the
    /// test's event loop runs, as in waitForLog() and QTRY_*. To be called before the collector is started;
    /// ends the test program where the kernel refuses such namespaces.
    void trust(const FakeHosts& hosts);

    /// Starts it with `--config` and a file of @ref settings.
    void start();
    /// Starts it with just these arguments.
    void startWith(const QStringList& arguments);
    /// The process's exit status, once it has ended by itself; -1 when it does not within a minute.
    int waitForExit();
    /// Ends it as an operator would (SIGTERM).
    void terminate();
    /// Ends it as `kill -9` does.
    void kill();

    bool isRunning() const;
    qint64 processId() const;
    QString settingsPath() const;

    /// The log so far: everything that the process has written to standard error, a line an entry.
    QStringList log();
    /// What the process has written to standard output.
    QString output();
    /// Seconds of processor time that it has used.
    double cpuSeconds() const;
    /// Waits until a line of the log contains @p text, or @p count lines do; false after half a minute.
    bool waitForLog(const QString& text, qsizetype count = 1);

private:
    QTemporaryDir m_folder;
    QProcess m_process;
    bool m_obeysFileModes = false;
    QByteArray m_authorityFolder; ///< empty: the system's
    QByteArray m_errors;
    QByteArray m_output;
};

} // namespace tarn::test
