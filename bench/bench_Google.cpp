// Search figures from the network to the tables: how fast, against storing rows that are at hand, and how
// much memory the most rows that are taken of a site cost. The host that answers is a process of its own, so
// that its memory is not counted.

#include "Measure.h"
#include "analytics/Google.h"
#include "analytics/SearchImport.h"
#include "support/FakeHosts.h"
#include "support/ProcessMemory.h"
#include "support/ProductSession.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

constexpr int kPageRows = 25'000;
constexpr int kSomeRows = 50'000;
constexpr int kMostRows = 1'000'000;
const auto kProperty = u"sc-domain:%1.example.org"_s;

/// One of the rows of a site, as Google sets it out.
QByteArray row(int i)
{
    const QByteArray number = QByteArray::number(i);
    return "    {\n      \"keys\": [\n        \"2024-10-" + QByteArray::number(10 + i % 20)
           + "\",\n        \"red shoes size " + QByteArray::number(i % 5'000)
           + "\",\n        \"https://www.example.org/products/shoes/" + number
           + "/details?size=42\",\n        \"deu\",\n        \"MOBILE\"\n      ],\n      \"clicks\": "
           + QByteArray::number(i % 7) + ",\n      \"impressions\": " + number
           + ",\n      \"ctr\": 0.034246575342465752,\n      \"position\": 7.1232876712328768\n    }";
}

/// The page that starts with row @p start of @p count.
QByteArray page(int start, int count)
{
    QByteArrayList rows;
    for (int i = start; i < std::min(start + kPageRows, count); ++i)
        rows.append(row(i));
    return "{\n  \"rows\": [\n" + rows.join(",\n") + "\n  ],\n  \"responseAggregationType\": \"byPage\"\n}\n";
}

QByteArray totals()
{
    QByteArrayList rows;
    for (int day = 10; day < 30; ++day) {
        rows.append(R"({"keys": ["2024-10-)" + QByteArray::number(day)
                    + R"("], "clicks": 3, "impressions": 120, "ctr": 0.025, "position": 7.5})");
    }
    return "{\"rows\": [" + rows.join(',') + "]}";
}

test::FakeHosts::Reply answer(const test::FakeHosts::Request& request)
{
    if (request.target == "/token")
        return {.body = R"({"access_token": "token"})"};
    if (request.method == "GET")
        return {.body = "{}"};
    if (!request.body.contains("device"))
        return {.body = totals()};
    const qsizetype number = request.target.indexOf("%3A") + 3;
    const int count = request.target.sliced(number, request.target.indexOf('.', number) - number).toInt();
    const int start = request.json().value(u"startRow"_s).toInt();
    return {.body = page(start, count)};
}

/// The host's process: says where it is to be found, and answers until its input ends.
int serve()
{
    test::FakeHosts hosts;
    if (!hosts.start({u"oauth2.googleapis.com"_s, u"www.googleapis.com"_s}))
        return 1;
    hosts.answer(answer);
    std::printf("%d %s\n", hosts.serverPort(), qPrintable(hosts.authority().file()));
    std::fflush(stdout);
    return QCoreApplication::exec();
}

/// Starts this program again as the host.
bool startHost(QProcess& process)
{
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QCoreApplication::applicationFilePath(), {u"--serve"_s});
    while (!process.canReadLine()) {
        if (!process.waitForReadyRead())
            return false;
    }
    const QList<QByteArray> words = process.readLine().trimmed().split(' ');
    test::FakeHosts::capture(words.at(0).toUShort(), QString::fromLocal8Bit(words.value(1)));
    return true;
}

void forgetWhatIsStored(const QString& property)
{
    test::run(u"TRUNCATE tarn.search_days, tarn.search_rows, tarn.search_properties"_s);
    test::run(u"INSERT INTO tarn.search_properties VALUES (1, 'google', '%1')"_s.arg(property));
}

void fetch(int rows)
{
    forgetWhatIsStored(kProperty.arg(rows));
    const QString result = analytics::google::sync({.id = u"id"_s, .secret = u"secret"_s, .redirectUri = {}});
    if (!result.endsWith(u", %1 detail rows"_s.arg(rows)))
        qFatal("not everything was stored: %s", qPrintable(result));
}

void store(const QJsonObject& document)
{
    forgetWhatIsStored(u"-"_s);
    bool ok = false;
    const QString result = analytics::importSearchData(1, u"google"_s, document, &ok);
    if (!ok)
        qFatal("not everything was stored: %s", qPrintable(result));
}

QJsonObject documentAtHand()
{
    QJsonArray rows;
    for (int start = 0; start < kSomeRows; start += kPageRows) {
        const QJsonArray some =
            QJsonDocument::fromJson(page(start, kSomeRows)).object().value(u"rows"_s).toArray();
        for (const auto& value : some)
            rows.append(value);
    }
    return {
        {u"totals"_s, QJsonDocument::fromJson(totals()).object().value(u"rows"_s)},
        {u"rows"_s,   rows                                                       }
    };
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    if (QCoreApplication::arguments().contains(u"--serve"_s))
        return serve();
    test::PostgresServer server;
    test::ProductSession session(server);
    QProcess host;
    if (!server.start() || !startHost(host) || !session.open())
        return 1;
    test::run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
    test::run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('google', 'token')"_s);
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
        if (type != QtInfoMsg)
            std::fprintf(stderr, "%s\n", qPrintable(text));
    });

    // The most rows first: the peak is that of the whole process.
    QElapsedTimer timer;
    timer.start();
    fetch(kMostRows);
    std::printf("%d rows of a site fetched and stored in %.1f s; peak memory %.0f MB, afterwards %.0f MB\n",
                kMostRows, static_cast<double>(timer.elapsed()) / 1000, test::memoryMb("VmHWM"),
                test::memoryMb("VmRSS"));

    const QJsonObject document = documentAtHand();
    bench::compare(
        {
            {u"rows at hand, stored"_s, [&document] { store(document); }},
            {u"fetched and stored"_s,   [] { fetch(kSomeRows); }        }
    },
        3, kSomeRows, "rows/s");
    host.kill();
    host.waitForFinished();
    return 0;
}
