// Loads of many rows, each beside COPY of the same rows into the same table, and what ten times as many cost:
// the country file, and the search figures of a site. Processor time is that of this process and of its
// backend.

#include "Processor.h"
#include "analytics/GeoIp.h"
#include "analytics/SearchImport.h"
#include "support/ProductSession.h"

#include <QCoreApplication>
#include <QFile>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonObject>
#include <QSqlQuery>
#include <QTemporaryDir>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

constexpr int kRounds = 3;
constexpr int kRangeCounts[] = {60'000, 600'000};
constexpr int kRowCounts[] = {25'000, 250'000, 1'000'000};
constexpr int kDays = 480;

struct Load
{
    QString name;
    int rows;
    std::function<void()> copy;
    std::function<void()> load;
};

void write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(path));
    file.close();
    file.setPermissions(file.permissions() | QFileDevice::ReadOther);
}

/// A country file of @p count ranges, one behind the other.
QByteArray countryFile(int count)
{
    QByteArray text;
    const quint32 step = 0xffff'ffffU / static_cast<quint32>(count);
    for (int i = 0; i < count; ++i) {
        const quint32 first = static_cast<quint32>(i) * step;
        text += QHostAddress(first).toString().toLatin1() + ','
                + QHostAddress(first + step - 1).toString().toLatin1() + ',' + static_cast<char>('A' + i % 26)
                + static_cast<char>('A' + i / 26 % 24) + '\n';
    }
    return text;
}

QString dayOf(int row)
{
    return QDate(2024, 1, 1).addDays(row % kDays).toString(Qt::ISODate);
}

/// What an engine sends of a site: @p count detail rows over 480 days.
QJsonObject searchFigures(int count)
{
    const auto row = [](const QJsonArray& keys) {
        return QJsonObject{
            {u"keys"_s,        keys},
            {u"clicks"_s,      3   },
            {u"impressions"_s, 120 },
            {u"position"_s,    7.4 }
        };
    };
    QJsonArray totals;
    for (int day = 0; day < kDays; ++day)
        totals.append(row({dayOf(day)}));
    QJsonArray rows;
    for (int i = 0; i < count; ++i) {
        rows.append(row({dayOf(i), u"red shoes %1"_s.arg(i), u"https://example.org/shoes/%1"_s.arg(i % 500),
                         u"deu"_s, u"MOBILE"_s}));
    }
    return {
        {u"totals"_s, totals},
        {u"rows"_s,   rows  }
    };
}

/// The same detail rows as they are stored, for COPY.
QByteArray searchRows(int count)
{
    QByteArray text;
    for (int i = 0; i < count; ++i) {
        const QByteArray number = QByteArray::number(i);
        text += "1,google," + dayOf(i).toLatin1() + ",red shoes " + number + ",/shoes/"
                + QByteArray::number(i % 500) + ",DE,mobile,3,120,7.4\n";
    }
    return text;
}

Load countries(const QTemporaryDir& folder, int count)
{
    const QString file = folder.filePath(u"countries-%1.csv"_s.arg(count));
    write(file, countryFile(count));
    return {u"country ranges"_s, count,
            [file] {
                test::run(u"TRUNCATE tarn.geo_country"_s);
                test::run(u"COPY tarn.geo_country FROM '%1' (FORMAT csv)"_s.arg(file));
            },
            [file, count] {
                bool ok = false;
                const QString result = analytics::updateGeoIp(file, &ok);
                if (!ok || test::scalar(u"SELECT count(*) FROM tarn.geo_country"_s) != QString::number(count))
                    qFatal("%s", qPrintable(result));
            }};
}

Load search(const QTemporaryDir& folder, int count)
{
    const QString file = folder.filePath(u"search-%1.csv"_s.arg(count));
    write(file, searchRows(count));
    const auto empty = [] { test::run(u"TRUNCATE tarn.search_rows, tarn.search_days"_s); };
    return {u"search rows"_s, count,
            [file, empty] {
                empty();
                test::run(u"COPY tarn.search_rows FROM '%1' (FORMAT csv)"_s.arg(file));
            },
            [document = searchFigures(count), empty] {
                empty();
                bool ok = false;
                const QString result = analytics::importSearchData(1, u"google"_s, document, &ok);
                if (!ok)
                    qFatal("%s", qPrintable(result));
            }};
}

/// One line of the table; what a row costs is returned, for the next size.
double print(const Load& load, qint64 backend, double smaller)
{
    QList<bench::Cost> copies;
    QList<bench::Cost> loads;
    for (int round = 0; round < kRounds; ++round) {
        copies.append(bench::costOf(backend, load.copy));
        loads.append(bench::costOf(backend, load.load));
    }
    const bench::Cost copy = bench::median(copies);
    const bench::Cost cost = bench::median(loads);
    const double row = cost.processor() * 1e6 / load.rows;
    std::printf("| %d %s | %.2f | %.1f (%.1f + %.1f) | %.1f | %.1f | %s |\n", load.rows,
                qPrintable(load.name), cost.wall, row, cost.own * 1e6 / load.rows,
                cost.backend * 1e6 / load.rows, copy.processor() * 1e6 / load.rows,
                cost.processor() / copy.processor(),
                smaller > 0 ? qPrintable(QString::number(row / smaller, 'f', 2)) : "");
    std::fflush(stdout);
    return row;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    test::PostgresServer server;
    test::ProductSession session(server);
    QTemporaryDir folder;
    QFile::setPermissions(folder.path(),
                          QFile::permissions(folder.path()) | QFileDevice::ReadOther | QFileDevice::ExeOther);
    if (!server.start() || !session.open())
        return 1;
    test::run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
    const qint64 backend = bench::backendOf(db::session());
    std::printf("| | s on the wall | us a row (daemon + backend) | COPY, us a row | x COPY | us a row, x the "
                "size before "
                "|\n|---|---|---|---|---|---|\n");
    double row = 0;
    for (const int count : kRangeCounts)
        row = print(countries(folder, count), backend, row);
    row = 0;
    for (const int count : kRowCounts)
        row = print(search(folder, count), backend, row);
    return 0;
}
