// Lines to stored hits, against the bare statement on the same driver and server: what parsing, classifying,
// sessions and countries add to it, and what preparing the statement once is worth.

#include "Measure.h"
#include "analytics/HitTransaction.h"
#include "analytics/Ingest.h"
#include "common/Db.h"
#include "support/ProductSession.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QSqlQuery>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

constexpr int kLines = 20'000;
constexpr int kBatch = 200;

/// Lines of which one in @p newEvery comes from a visitor that was not seen before.
QList<QByteArray> makeLines(int newEvery)
{
    QList<QByteArray> lines;
    for (int i = 0; i < kLines; ++i) {
        const int visitor = i / newEvery;
        const QByteArray ip = "10." + QByteArray::number(visitor >> 16) + '.'
                              + QByteArray::number((visitor >> 8) & 255) + '.'
                              + QByteArray::number(visitor & 255);
        lines.append(
            ip + " - - [10/Oct/2024:13:" + QByteArray::number(10 + i * 40 / kLines)
            + ":36 +0200] \"GET /products/" + QByteArray::number(i % 500)
            + "?size=42 HTTP/1.1\" 200 23261 \"https://www.example.org/products\" \"Mozilla/5.0 (X11; Linux "
              "x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 Safari/537.36\" 1234");
    }
    return lines;
}

void bindRow(QSqlQuery& query)
{
    static const QDateTime at(QDate(2024, 10, 10), QTime(11, 55, 36), Qt::UTC);
    static const QVariantList row = {1,
                                     at,
                                     u"GET"_s,
                                     u"/products/17"_s,
                                     200,
                                     23261,
                                     true,
                                     u"192.0.2.17"_s,
                                     QByteArray(8, 'v'),
                                     17,
                                     u"DE"_s,
                                     u"internal"_s,
                                     QVariant(),
                                     u"https://www.example.org/products"_s,
                                     QVariant(),
                                     u"desktop"_s,
                                     u"Chrome"_s,
                                     u"Linux"_s,
                                     QVariant(),
                                     QVariant(),
                                     1234};
    for (const QVariant& value : row)
        query.addBindValue(value);
}

void insertBare(bool prepareOnce)
{
    QSqlDatabase session = QSqlDatabase::database();
    session.transaction();
    std::optional<QSqlQuery> query;
    for (int i = 0; i < kLines; i += kBatch) {
        if (!query || !prepareOnce) {
            query.emplace();
            query->prepare(analytics::hitInsertStatement(kBatch));
        }
        for (int row = 0; row < kBatch; ++row)
            bindRow(*query);
        db::exec(*query);
    }
    session.commit();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    test::PostgresServer server;
    test::ProductSession session(server);
    if (!server.start() || !session.open())
        return 1;
    // A country table of full size, every second range unknown.
    test::run(u"INSERT INTO tarn.geo_country SELECT '0.0.0.0'::inet + n * 7000::bigint, "
              "'0.0.0.0'::inet + n * 7000::bigint + 3500, 'DE' FROM generate_series(1, 600000) n"_s);
    test::run(u"ANALYZE"_s);

    const QList<QByteArray> few = makeLines(20);
    const QList<QByteArray> many = makeLines(3);
    const auto ingest = [](const QList<QByteArray>& lines) {
        analytics::Ingest job;
        job.init();
        if (job.ingest(1, u"www.example.org"_s, lines).stored != kLines)
            qFatal("not all lines were stored");
    };
    bench::compare(
        {
            {u"bare statement, prepared for each batch"_s, [] { insertBare(false); }},
            {u"bare statement, prepared once"_s,           [] { insertBare(true); } },
            {u"ingest, one line in 20 of a new visitor"_s, [&] { ingest(few); }     },
            {u"ingest, one line in 3 of a new visitor"_s,  [&] { ingest(many); }    }
    },
        5, kLines, "rows/s");
    return 0;
}
