// Lines to stored hits, in bulk and as they come, beside other ways to take the same lines: the bare
// statement through the client library's prepared call, COPY, and two programs that read the same log into
// their own memory or files. Processor time of all processes that do the work is counted.

#include "LogLines.h"
#include "Processor.h"
#include "analytics/HitTransaction.h"
#include "analytics/Ingest.h"
#include "collect/LogSource.h"
#include "collect/Maintenance.h"
#include "common/Db.h"
#include "support/ProductSession.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QSqlQuery>

#include <libpq-fe.h>

#include <memory>
#include <vector>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using bench::Cost;

namespace {

constexpr int kRounds = 5;
constexpr int kRanges = 550'000;
constexpr int kSliceLines = kSliceBytes / bench::kLineBytes; ///< a slice of a log that is behind
constexpr int kBatch = 200;
constexpr int kColumns = 21;

constexpr int kLiveSources = 200;
constexpr int kLivePasses = 10;
constexpr int kMaintainedSites = 1'000;
constexpr int kLiveLines = 10; ///< lines that a source has for a pass: 5 a second

/// The session of the client library alone.
class BareSession
{
public:
    explicit BareSession(const test::PostgresServer& server)
        : m_connection(PQconnectdb(qPrintable(
            u"host=%1 user=postgres dbname=%2"_s.arg(server.socketFolder(), db::session().databaseName()))))
    {
    }
    ~BareSession() { PQfinish(m_connection); }
    BareSession(const BareSession&) = delete;
    BareSession& operator=(const BareSession&) = delete;

    PGconn* get() const { return m_connection; }
    qint64 backend() const { return PQbackendPID(m_connection); }

    static void check(PGresult* result)
    {
        const ExecStatusType status = PQresultStatus(result);
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && status != PGRES_COPY_IN)
            qFatal("%s", PQresultErrorMessage(result));
        PQclear(result);
    }
    void run(const QByteArray& statement) const { check(PQexec(m_connection, statement.constData())); }

private:
    PGconn* m_connection;
};

/// An ordinary hit as text, in the order of the insertion's columns; null pointers are NULL.
constexpr const char* kRow[kColumns] = {"1",
                                        "2024-10-10 11:55:36+00",
                                        "GET",
                                        "/products/17",
                                        "200",
                                        "23261",
                                        "t",
                                        "192.0.2.17",
                                        "\\x7676767676767676",
                                        "17",
                                        "DE",
                                        "internal",
                                        nullptr,
                                        "https://www.example.org/p/17",
                                        nullptr,
                                        "desktop",
                                        "Chrome",
                                        "Windows",
                                        nullptr,
                                        nullptr,
                                        "1234"};

/// A statement with "$1", "$2" in place of its question marks.
QByteArray numbered(const QByteArray& statement)
{
    QByteArray text;
    int number = 0;
    for (const char c : statement)
        text += c == '?' ? '$' + QByteArray::number(++number) : QByteArray(1, c);
    return text;
}

void insertPrepared(const BareSession& bare)
{
    QList<const char*> values;
    for (int i = 0; i < kBatch; ++i)
        values.append(QList<const char*>(std::begin(kRow), std::end(kRow)));
    bare.run("BEGIN");
    BareSession::check(PQprepare(bare.get(), "bench",
                                 numbered(analytics::hitInsertStatement(kBatch).toUtf8()).constData(), 0,
                                 nullptr));
    for (int i = 0; i < kSliceLines; i += kBatch) {
        BareSession::check(PQexecPrepared(bare.get(), "bench", static_cast<int>(values.size()),
                                          values.constData(), nullptr, nullptr, 0));
    }
    bare.run("COMMIT");
    bare.run("DEALLOCATE bench");
}

void copy(const BareSession& bare)
{
    QByteArray row;
    for (const char* value : kRow)
        row += (value ? QByteArray(value).replace('\\', "\\\\") : "\\N") + '\t';
    row.back() = '\n';
    const QByteArray rows = row.repeated(kBatch);
    const QByteArray columns = analytics::kHitInsertion.section(u"INTO "_s, 1).toUtf8();
    bare.run("BEGIN");
    bare.run("COPY " + columns + " FROM STDIN");
    for (int i = 0; i < kSliceLines; i += kBatch)
        PQputCopyData(bare.get(), rows.constData(), static_cast<int>(rows.size()));
    PQputCopyEnd(bare.get(), nullptr);
    BareSession::check(PQgetResult(bare.get()));
    while (PGresult* result = PQgetResult(bare.get()))
        PQclear(result);
    bare.run("COMMIT");
}

void runProgram(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.start(program, arguments);
    if (!process.waitForFinished(600'000) || process.exitCode() != 0)
        qFatal("%s: %s", qPrintable(program), process.readAllStandardError().constData());
}

/// Reads @p log into memory and writes its report.
void runGoAccess(const QString& log)
{
    runProgram(u"goaccess"_s, {log, u"--no-global-config"_s, u"--log-format=COMBINED"_s, u"--no-progress"_s,
                               u"-o"_s, log + u".json"_s});
}

/// Reads @p log into files of its own beside it.
void runAwstats(const QString& log)
{
    const QFileInfo file(log);
    const QDir folder = file.absoluteDir();
    for (const QString& old : folder.entryList({u"awstats1*.txt"_s}))
        QFile::remove(folder.filePath(old));
    QFile settings(folder.filePath(u"awstats.bench.conf"_s));
    if (!settings.open(QIODevice::WriteOnly))
        qFatal("cannot write the settings of awstats");
    settings.write("LogFile=\"" + log.toLocal8Bit()
                   + "\"\nLogFormat=1\nSiteDomain=\"www.example.org\"\n"
                     "HostAliases=\"localhost\"\nDNSLookup=0\nDirData=\""
                   + folder.path().toLocal8Bit() + "\"\n");
    settings.close();
    runProgram(u"perl"_s, {u"/usr/lib/cgi-bin/awstats.pl"_s, u"-config=bench"_s,
                           u"-configdir="_s + folder.path(), u"-update"_s});
}

void appendLines(const QString& path, bench::LogLines& source, int lines)
{
    QFile file(path);
    if (!file.open(QIODevice::Append))
        qFatal("cannot write %s", qPrintable(path));
    for (int i = 0; i < lines; ++i)
        file.write(source.next());
}

/// One candidate, and what its rounds have cost.
struct Way
{
    QString name;
    int lines;
    qint64 backend; ///< of its session; 0 without one
    std::function<void()> job;
    QList<Cost> costs = {};
};

void emptyHits()
{
    test::run(u"TRUNCATE tarn.hits, tarn.rollup_due"_s);
    test::run(u"CHECKPOINT"_s);
}

void print(const QList<Way>& ways)
{
    const auto perLine = [](const Way& way, double seconds) { return seconds * 1e6 / way.lines; };
    std::printf("| | us of CPU a line | daemon | backend | other | wall ms | x first "
                "|\n|---|---|---|---|---|---|---|\n");
    const double first = perLine(ways.constFirst(), bench::median(ways.constFirst().costs).processor());
    for (const Way& way : ways) {
        const Cost cost = bench::median(way.costs);
        const double all = perLine(way, cost.processor());
        std::printf("| %s | %.1f | %.1f | %.1f | %.1f | %.0f | %.2f |\n", qPrintable(way.name), all,
                    perLine(way, cost.own), perLine(way, cost.backend), perLine(way, cost.children),
                    cost.wall * 1e3, first / all);
    }
}

/// The sources of the live load, each with a log of its own in @p folder.
QList<QString> registerSources(const QTemporaryDir& folder)
{
    QList<QString> logs;
    for (int i = 1; i <= kLiveSources; ++i) {
        logs.append(folder.filePath(u"live-%1.log"_s.arg(i)));
        test::run(u"INSERT INTO tarn.sites (id, host) VALUES (%1, 'www%1.example.org')"_s.arg(i));
        test::run(
            u"INSERT INTO tarn.log_sources (path, site_id) VALUES ('%1', %2)"_s.arg(logs.last()).arg(i));
    }
    return logs;
}

/// A pass over all sources, as the log timer makes it.
void followAll(analytics::Ingest& ingest)
{
    LongLines longLines;
    const QList<LogSource> sources = logSources();
    for (const LogSource& source : sources)
        followLog(ingest, longLines, source);
}

/// What the session's statements and plans take of the server's memory.
QString serverMemory()
{
    return test::scalar(u"SELECT format('%s prepared, %s MB in all contexts', (SELECT count(*) FROM "
                        "pg_prepared_statements), round(sum(total_bytes) / 1048576.0, 1)) FROM "
                        "pg_backend_memory_contexts"_s);
}

/// The live load, passes over the same sources without news, and the maintenance pass.
QList<Way> liveWays(const QTemporaryDir& folder, qint64 backend)
{
    const QList<QString> logs = registerSources(folder);
    QList<bench::LogLines> sources;
    for (int i = 0; i < kLiveSources; ++i)
        sources.append(bench::LogLines(static_cast<quint32>(i)));
    analytics::Ingest ingest;
    ingest.init();
    emptyHits();
    Way live = {u"200 sources with 10 lines each, a line"_s, kLiveSources * kLiveLines, backend,
                [&] { followAll(ingest); }};
    Way idle = {u"200 sources without news, a source"_s, kLiveSources, backend, live.job};
    for (int pass = 0; pass < kLivePasses; ++pass) {
        for (int i = 0; i < kLiveSources; ++i)
            appendLines(logs.at(i), sources[i], kLiveLines);
        live.costs.append(bench::costOf(backend, live.job));
        idle.costs.append(bench::costOf(backend, idle.job));
    }
    const QDate today = QDate::currentDate();
    rollUpSites({today});
    test::run(u"INSERT INTO tarn.sites (id, host) SELECT n, 'idle' || n || '.example.org' FROM "
              "generate_series(%1, %2) n"_s.arg(kLiveSources + 1)
                  .arg(kMaintainedSites));
    Way maintenance = {u"the roll-ups of 1,000 idle sites, a site"_s, kMaintainedSites, backend,
                       [today] { rollUpSites({today}); }};
    for (int pass = 0; pass < kLivePasses; ++pass)
        maintenance.costs.append(bench::costOf(backend, maintenance.job));
    return {live, idle, maintenance};
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    test::PostgresServer server;
    test::ProductSession session(server);
    QTemporaryDir folder;
    if (!server.start() || !session.open())
        return 1;
    // Made before there are countries, they never ask for one.
    std::vector<std::unique_ptr<analytics::Ingest>> withoutCountries;
    for (int i = 0; i < kRounds; ++i) {
        withoutCountries.push_back(std::make_unique<analytics::Ingest>());
        withoutCountries.back()->init();
    }
    test::run(u"INSERT INTO tarn.geo_country SELECT '0.0.0.0'::inet + n * 7700::bigint, "
              "'0.0.0.0'::inet + n * 7700::bigint + 3850, 'DE' FROM generate_series(1, %1) n"_s.arg(kRanges));
    test::run(u"ANALYZE"_s);
    const BareSession bare(server);
    const qint64 backend = bench::backendOf(db::session());
    const QList<QByteArray> lines = bench::logLines(kSliceLines, 1);
    const QString log = folder.filePath(u"slice.log"_s);
    {
        bench::LogLines source(1);
        appendLines(log, source, kSliceLines);
    }

    const auto bulk = [&](bool countries) {
        // What an earlier round has cached is no part of a slice.
        std::unique_ptr<analytics::Ingest> ingest;
        if (countries) {
            ingest = std::make_unique<analytics::Ingest>();
            ingest->init();
        } else {
            ingest = std::move(withoutCountries.back());
            withoutCountries.pop_back();
        }
        if (ingest->ingest(1, u"www.example.org"_s, lines).stored != kSliceLines)
            qFatal("not all lines were stored");
    };
    QList<Way> ways = {
        {u"GoAccess, into memory"_s,             0, 0,              [&] { runGoAccess(log); }    },
        {u"AWStats, into its files"_s,           0, 0,              [&] { runAwstats(log); }     },
        {u"COPY of one row"_s,                   0, bare.backend(), [&] { copy(bare); }          },
        {u"the prepared call with one row"_s,    0, bare.backend(), [&] { insertPrepared(bare); }},
        {u"an 8 MiB slice, with countries"_s,    0, backend,        [&] { bulk(true); }          },
        {u"an 8 MiB slice, without countries"_s, 0, backend,        [&] { bulk(false); }         },
    };
    for (int round = 0; round < kRounds; ++round) {
        for (Way& way : ways) {
            emptyHits();
            way.lines = kSliceLines;
            way.costs.append(bench::costOf(way.backend, way.job));
        }
    }
    print(ways);
    std::printf("\nserver, after the slices: %s\n\n", qPrintable(serverMemory()));

    print(liveWays(folder, backend));
    std::printf("\nserver, after the live load: %s\n", qPrintable(serverMemory()));
    return 0;
}
