// What a page costs on a host of 10,000 sites with 365 days of figures each, and how large it is. Takes
// minutes to fill.

#include "common/Db.h"
#include "report/HostPage.h"
#include "report/SitePage.h"
#include "support/ProductSession.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QSqlQuery>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::report;

namespace {

constexpr int kSites = 10'000;
constexpr int kDays = 365;
constexpr int kRounds = 5;

/// Figures of all sites; values by dimension of two of them, which is all that a page reads: site 1 has every
/// day 1,000 paths, and as many missing ones, that no other day has; site 2 has what an ordinary site has.
void fill()
{
    test::run(u"INSERT INTO tarn.sites (id, host) SELECT n, 'site-' || n || '.example.org' "
              "FROM generate_series(1, %1) n"_s.arg(kSites));
    test::run(u"INSERT INTO tarn.site_days (site_id, day, hits, page_views, visitors, sessions, bounces, "
              u"bot_hits, bytes, "
              "errors_4xx, errors_5xx, engaged_seconds, raw_hits, response_us_median, response_us_p95, zone) "
              "SELECT n, current_date - d, 900, 300 + n % 97, 100 + (n * 31 + d * 17) % 211, 130, 60, 200, "
              "9000000, 20, 1, "
              "9000, 1000, 40000, 200000, 'UTC' "
              "FROM generate_series(0, %1) d CROSS JOIN generate_series(1, %2) n"_s.arg(kDays - 1)
                  .arg(kSites));
    const QString values =
        u"INSERT INTO tarn.site_day_values (site_id, day, dimension, value, hits, visitors, engaged_seconds, "
        "response_us_p95) SELECT %1, current_date - d, x, CASE WHEN x = 'hour' THEN to_char(v % 24, 'FM00') "
        "ELSE '/' || x || '/' || v + CASE WHEN x ~ 'path|source$' THEN d * %3 ELSE 0 END END, 1 + 9000 / v, "
        "1 + 3000 / v, 60, 100000 "
        "FROM generate_series(0, %2) d CROSS JOIN (VALUES %4) t (x, most) CROSS JOIN generate_series(1, most) v"_s;
    test::run(values.arg(1).arg(kDays - 1).arg(1000).arg(
        u"('path', 1000), ('entry_path', 300), ('source_kind', 8), ('source', 200), ('campaign', 20), "
        "('country', 80), ('browser', 12), ('os', 8), ('device', 3), ('bot', 40), ('status', 12), "
        "('missing_path', 1000), ('hour', 24)"_s));
    test::run(values.arg(2).arg(kDays - 1).arg(0).arg(
        u"('path', 60), ('entry_path', 25), ('source_kind', 6), ('source', 15), ('country', 15), ('browser', "
        u"8), "
        "('os', 6), ('device', 3), ('bot', 15), ('status', 7), ('missing_path', 30), ('hour', 24)"_s));
    // A sample every 30 seconds, thousands of alerts and accounts.
    test::run(u"INSERT INTO tarn.host_samples (at, load1, mem_total_kb, mem_avail_kb, cpu_pct, net_rx_bps, "
              u"net_tx_bps, "
              "apache_busy, apache_slots) SELECT now() - n * interval '30 seconds', n % 7, 100, n % 90, n % "
              "100, n, n, "
              "n % 150, 150 FROM generate_series(0, 86399) n"_s);
    test::run(u"INSERT INTO tarn.alerts (kind, subject, message, opened_at, closed_at) SELECT 'load', 'CPU', "
              "'Load 9.0 on 4 CPUs', now() - n * interval '9 minutes', now() - n * interval '8 minutes' "
              "FROM generate_series(1, 4000) n"_s);
    test::run(u"INSERT INTO tarn.accounts (username, domain, disk_limit_mb, disk_used_bytes, created_at) "
              u"SELECT 'u' || n, "
              "'site-' || n || '.example.org', 1000, n * 100000, now() - interval '400 days' "
              "FROM generate_series(1, %1) n"_s.arg(kSites));
    test::run(u"INSERT INTO tarn.log_sources (site_id, path) SELECT n, '/var/log/apache2/' || n || '.log' "
              "FROM generate_series(1, %1) n"_s.arg(kSites));
    test::run(u"INSERT INTO tarn.account_days SELECT 'u' || n, current_date - d, n * 90000, NULL "
              "FROM generate_series(1, %1) n CROSS JOIN generate_series(0, 60) d"_s.arg(kSites));
    test::run(u"VACUUM ANALYZE"_s);
}

/// Seconds that the processors have worked for this program and its session; what else the machine does is
/// not in it.
double processorSeconds()
{
    QFile stat(u"/proc/%1/stat"_s.arg(test::scalar(u"SELECT pg_backend_pid()"_s)));
    double ticks = 0;
    if (stat.open(QIODevice::ReadOnly)) {
        const QList<QByteArray> fields = stat.readAll().split(')').last().simplified().split(' ');
        ticks = fields.value(11).toDouble() + fields.value(12).toDouble(); // utime and stime, proc(5)
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK))
           + static_cast<double>(std::clock()) / static_cast<double>(CLOCKS_PER_SEC);
}

void measure(const char* what, const std::function<QByteArray()>& page)
{
    QList<double> seconds;
    qsizetype size = 0;
    const double before = processorSeconds();
    for (int round = 0; round < kRounds; ++round) {
        QElapsedTimer timer;
        timer.start();
        size = page().size();
        seconds.append(static_cast<double>(timer.nsecsElapsed()) / 1e9);
    }
    const double worked = (processorSeconds() - before) / kRounds;
    std::sort(seconds.begin(), seconds.end());
    std::printf("%-40s %8.3f s (%.3f to %.3f), processor %.3f s %8.0f kB\n", what, seconds.at(kRounds / 2),
                seconds.first(), seconds.last(), worked, static_cast<double>(size) / 1000);
    std::fflush(stdout);
}

Period lastDays(const Now& now, int days)
{
    return {now.today.addDays(1 - days), now.today};
}

QByteArray host(int days)
{
    const Reading reading;
    const Now now = readNow().value_or(Now());
    return hostPage(readHost(u"bench.example"_s, now, lastDays(now, days)).value_or(HostFigures()));
}

QByteArray site(int id, int days)
{
    const Reading reading;
    const Now now = readNow().value_or(Now());
    return sitePage(readSite({id, u"site.example.org"_s}, lastDays(now, days)).value_or(SiteFigures()), now);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    test::PostgresServer server;
    test::ProductSession session(server);
    if (!server.start() || !session.open())
        return 1;
    fill();
    // The workers of a parallel plan are processes of their own, whose work would not be seen.
    test::run(u"SET max_parallel_workers_per_gather = 0"_s);
    std::printf("%d sites, %d days: median of %d rounds (best to worst)\n", kSites, kDays, kRounds);
    for (const int days : {30, kDays}) {
        std::printf("-- the last %d days\n", days);
        measure("host", [days] { return host(days); });
        measure("ordinary site", [days] { return site(2, days); });
        measure("site with 1,000 new paths every day", [days] { return site(1, days); });
    }
    return 0;
}
