// The collector's binary: a backlog, many sources that have nothing new, and how long a line waits. Processor
// time is that of the daemon and of its backend.

#include "LogLines.h"
#include "Processor.h"
#include "support/Collector.h"
#include "support/PostgresServer.h"

#include <QCoreApplication>
#include <QFile>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

constexpr qint64 kBacklogBytes = 200'000'000;
constexpr int kIdleSeconds = 60;
constexpr int kDelays = 100;
constexpr int kWaitMs = 1'800'000;

/// A collector on a database of its own.
struct Bench
{
    test::PostgresServer& server;
    QTemporaryDir folder = QTemporaryDir();
    test::Collector collector = test::Collector();
    QString name = collector.useNewDatabase(server);

    QString value(const QString& statement) const
    {
        return test::value(server.connect(name, u"bench"_s), statement);
    }
    void run(const QString& statement) const { test::run(server.connect(name, u"bench"_s), statement); }

    qint64 backend() const
    {
        return value(u"SELECT coalesce(max(pid), 0) FROM pg_stat_activity WHERE application_name = "
                     "'tarn-collect' AND datname = current_database()"_s)
            .toLongLong();
    }

    /// Sources 1 to @p count, with the logs that log() names.
    void addSources(int count) const
    {
        run(u"INSERT INTO tarn.sites (id, host) SELECT n, 'www' || n || '.example.org' FROM "
            "generate_series(1, %1) n"_s.arg(count));
        run(u"INSERT INTO tarn.log_sources (path, site_id) SELECT '%1/' || n || '.log', n FROM "
            "generate_series(1, %2) n"_s.arg(folder.path())
                .arg(count));
    }
    QString log(int source) const { return folder.filePath(u"%1.log"_s.arg(source)); }

    void append(int source, const QByteArray& bytes) const
    {
        QFile file(log(source));
        if (!file.open(QIODevice::Append) || file.write(bytes) != bytes.size())
            qFatal("cannot write %s", qPrintable(file.fileName()));
    }

    /// A line of the daemon's /proc/PID/status, in MB.
    double memory(const QByteArray& key) const
    {
        QFile file(u"/proc/%1/status"_s.arg(collector.processId()));
        if (!file.open(QIODevice::ReadOnly))
            return 0;
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.startsWith(key + ':'))
                return line.sliced(key.size() + 1).simplified().split(' ').constFirst().toDouble() / 1024;
        }
        return 0;
    }

    void waitForHits(qint64 count) const
    {
        const auto stored = [&] { return value(u"SELECT count(*) FROM tarn.hits"_s).toLongLong() >= count; };
        if (!QTest::qWaitFor(stored, kWaitMs))
            qFatal("the lines were not stored");
    }
};

void drainBacklog(test::PostgresServer& server)
{
    Bench bench{server};
    bench.addSources(1);
    bench::LogLines lines(1);
    qint64 count = 0;
    for (QByteArray part; count * bench::kLineBytes < kBacklogBytes; part.clear()) {
        while (part.size() < 1'000'000)
            part += lines.next();
        bench.append(1, part);
        count += part.size() / bench::kLineBytes;
    }
    QElapsedTimer timer;
    timer.start();
    bench.collector.start();
    bench.waitForHits(count);
    const double seconds = static_cast<double>(timer.elapsed()) / 1e3;
    const double daemon = bench::processSeconds(bench.collector.processId());
    const double backend = bench::processSeconds(bench.backend());
    std::printf("| 200 MB, %lld lines, drained in %.0f s | %.1f us a line | peak %.1f MB |\n",
                static_cast<long long>(count), seconds, (daemon + backend) * 1e6 / static_cast<double>(count),
                bench.memory("VmHWM"));
}

void idle(test::PostgresServer& server, int sources)
{
    Bench bench{server};
    bench.addSources(sources);
    for (int i = 1; i <= sources; ++i)
        bench.append(i, {});
    bench.collector.start();
    if (!QTest::qWaitFor([&] { return bench.backend() != 0; }, kWaitMs))
        qFatal("the collector did not start");
    QTest::qWait(10'000); // until the work of the start is done
    const auto used = [&] {
        return bench::processSeconds(bench.collector.processId()) + bench::processSeconds(bench.backend());
    };
    const double before = used();
    QElapsedTimer timer;
    timer.start();
    QTest::qWait(kIdleSeconds * 1'000);
    std::printf("| %d idle sources | %.2f %% of a processor | %.1f MB |\n", sources,
                (used() - before) / static_cast<double>(timer.elapsed()) * 1e5, bench.memory("VmRSS"));
    if (sources > 1'000)
        return;
    QList<qint64> delays;
    bench::LogLines lines(2);
    for (int i = 1; i <= kDelays; ++i) {
        bench.append(i, lines.next());
        timer.restart();
        bench.waitForHits(i);
        delays.append(timer.elapsed());
    }
    std::sort(delays.begin(), delays.end());
    std::printf("| a line's delay among them | median %lld ms | 99 of 100 in %lld ms |\n",
                static_cast<long long>(delays.at(kDelays / 2)),
                static_cast<long long>(delays.at(kDelays - 2)));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // each figure takes minutes
    test::PostgresServer server;
    if (!server.start())
        return 1;
    std::printf("| | | |\n|---|---|---|\n");
    idle(server, 1'000);
    idle(server, 10'000);
    drainBacklog(server);
    return 0;
}
