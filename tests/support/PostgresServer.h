// A private PostgreSQL server for one test program: its own data folder and socket under /tmp, no TCP, no
// sync. It dies with the test program, whatever ends that.
#pragma once

#include <QProcess>
#include <QSqlDatabase>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace tarn::test {

class PostgresServer
{
public:
    PostgresServer();
    ~PostgresServer();
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

    /// Makes the data folder and starts the server. False, with a warning that says why, when that fails.
    bool start();
    /// Stops it as `pg_ctl stop -m fast` does: sessions are ended, what is committed is kept.
    void stop();
    /// Starts it again after stop() or kill().
    bool restart();
    /// Ends it the hard way, as a power cut would.
    void kill();

    /// Folder of the socket, for `database/host`; the port is 5432 and the user "postgres".
    QString socketFolder() const;

    /// Makes a database with the collector's schema in it and returns its name.
    QString createDatabase();
    /// Makes an empty database and returns its name.
    QString createEmptyDatabase();
    /// Runs a file as `psql -v ON_ERROR_STOP=1 -f` does; empty on success, else what psql printed as errors.
    QString runFile(const QString& database, const QString& file, const QStringList& options = {}) const;

    /// What it has logged since start().
    QString log() const;
    /// The lines of it from the latest @p start to the @p end behind that; none while either is missing.
    QStringList logBetween(const QString& start, const QString& end) const;

    /// A session of the test's own, named @p connection in Qt's SQL module, beside the product's default one.
    QSqlDatabase connect(const QString& database, const QString& connection,
                         const QString& user = QStringLiteral("postgres")) const;

private:
    bool initialise();
    QString program(const QString& name) const;

    QTemporaryDir m_folder;
    QProcess m_process;
    QString m_programs; ///< folder of the server's programs
    int m_databases = 0;
    bool m_haveTemplate = false;
};

/// Path of the schema's file @p name.
QString schemaFile(const QString& name);

/// Runs @p statement on @p database and returns the first column of the first row as text, "NULL" for NULL.
/// Fails the running test when the statement fails.
QString value(const QSqlDatabase& database, const QString& statement);

/// Runs @p statement; the running test fails when it fails.
void run(const QSqlDatabase& database, const QString& statement);

} // namespace tarn::test
