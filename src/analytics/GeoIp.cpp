#include "analytics/GeoIp.h"

#include "common/Db.h"
#include "common/Gzip.h"
#include "common/Http.h"
#include "common/Lines.h"
#include "common/Transaction.h"

#include <QByteArray>
#include <QList>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStringList>
#include <QUrl>

using namespace Qt::Literals::StringLiterals;

namespace tarn::analytics {

namespace {

/// The real file has hundreds of thousands of lines. A much smaller one is an error page, or damaged.
constexpr qsizetype kMinLines = 1'000;
constexpr qsizetype kRowsPerInsert = 1'000;

/// Of a download, which may be silent for any part of it. One without an end would hold up the other long
/// jobs.
constexpr int kTotalMs = 6 * 3'600 * 1'000;
/// The file has 5 MB.
constexpr qint64 kBodyBytes = 268'435'456;
constexpr http::Limits kLimits{.totalMs = kTotalMs, .bodyBytes = kBodyBytes};

/// Two addresses and a country take 82 bytes; other columns may follow them.
constexpr qsizetype kMaxRangeBytes = 1'024;

const auto kAddress = u"https://download.db-ip.com/free/dbip-country-lite-%1.csv.gz"_s;

const auto kDatabaseError = u"database error while loading"_s;

QString monthOf(QDate day)
{
    return day.toString(u"yyyy-MM"_s);
}

/// True when there are enough lines and one of them is a range. A long error page must not empty the table.
bool looksLikeCountryFile(const QByteArray& data)
{
    const qsizetype lines = data.count('\n') + (data.isEmpty() || data.endsWith('\n') ? 0 : 1);
    if (lines < kMinLines)
        return false;
    QByteArrayView rest(data);
    while (!rest.isEmpty()) {
        if (parseCountryRange(takeLine(rest)))
            return true;
    }
    return false;
}

bool insert(db::Transaction& transaction, const QList<CountryRange>& chunk)
{
    QSqlQuery& query = transaction.prepare(rangeInsertStatement(chunk.size()));
    for (const CountryRange& range : chunk) {
        query.addBindValue(QString::fromLatin1(range.from));
        query.addBindValue(QString::fromLatin1(range.to));
        query.addBindValue(QString::fromLatin1(range.country));
    }
    return db::exec(query);
}

/// Replaces the ranges in the table with those of @p data. Returns how many, or nothing when a statement
/// failed.
std::optional<qsizetype> replaceRanges(db::Transaction& transaction, QByteArrayView data)
{
    // From here on readers of the table wait for the end of the transaction.
    if (!db::run(kCountryTruncation))
        return std::nullopt;
    qsizetype total = 0;
    QList<CountryRange> chunk;
    chunk.reserve(kRowsPerInsert);
    while (!data.isEmpty()) {
        if (const std::optional<CountryRange> range = parseCountryRange(takeLine(data)))
            chunk.append(*range);
        const bool complete = chunk.size() == kRowsPerInsert || data.isEmpty();
        if (!complete || chunk.isEmpty())
            continue;
        if (!insert(transaction, chunk))
            return std::nullopt;
        total += chunk.size();
        chunk.clear();
    }
    return total;
}

bool storeMonth(db::Transaction& transaction, const QString& month)
{
    QSqlQuery& query = transaction.prepare(kCountryMonthStorage);
    query.addBindValue(month);
    return db::exec(query);
}

/// Replaces the table and notes the month, both or neither. The number of ranges; nothing when it failed.
std::optional<qsizetype> load(QByteArrayView data, const QString& month)
{
    db::Transaction transaction;
    if (!transaction.begun())
        return std::nullopt;
    const std::optional<qsizetype> total = replaceRanges(transaction, data);
    if (!total || !storeMonth(transaction, month) || !transaction.commit())
        return std::nullopt;
    return total;
}

} // namespace

bool geoIpIsStale()
{
    // The session can be lost during the synchronisation that runs before.
    return db::ensure(false) && geoIpIsStale(QDate::currentDate());
}

bool geoIpIsStale(QDate today)
{
    QSqlQuery query;
    if (!query.exec(kCountryMonthQuery))
        return db::session().isOpen();
    return !query.next() || query.value(0).toString() != monthOf(today);
}

QString updateGeoIp(const QString& file, bool* ok)
{
    // The date is read once: the file that is asked for and the month that is stored must agree at midnight.
    return updateGeoIp(file, ok, QDate::currentDate());
}

QString updateGeoIp(const QString& file, bool* ok, QDate today)
{
    *ok = false;
    const QString month = monthOf(today);
    QByteArray data;
    bool intact = false;
    if (!file.isEmpty()) {
        qInfo("collect: loading countries from %s", qPrintable(file));
        data = readMaybeGzip(file, &intact);
    } else {
        const QUrl address(kAddress.arg(month));
        qInfo("collect: loading countries from %s", qPrintable(address.toString()));
        const http::Answer answer =
            http::exchange({.url = address, .redirects = http::Redirects::Follow}, kLimits);
        const QString problem = http::problem(answer);
        if (!problem.isEmpty())
            return u"download failed: "_s + problem;
        data = gunzip(answer.body, &intact);
        // The session can be lost during the download, which must not be repeated for that.
        if (!db::ensure(false))
            return kDatabaseError;
    }
    // Without this check, the first half of a file would pass for a whole one.
    if (!intact || !looksLikeCountryFile(data))
        return u"that does not look like a DB-IP country file"_s;

    const std::optional<qsizetype> ranges = load(data, month);
    if (!ranges)
        return kDatabaseError;
    *ok = true;
    return u"loaded %1 country ranges (IP data by DB-IP, CC BY 4.0)"_s.arg(*ranges);
}

std::optional<CountryRange> parseCountryRange(QByteArrayView line)
{
    if (line.size() > kMaxRangeBytes)
        return std::nullopt;
    line = line.trimmed();
    const qsizetype first = line.indexOf(',');
    const qsizetype second = first < 0 ? -1 : line.indexOf(',', first + 1);
    if (second < 0)
        return std::nullopt;
    const qsizetype third = line.indexOf(',', second + 1);
    const QByteArrayView country = line.first(third < 0 ? line.size() : third).sliced(second + 1);
    if (country.size() != 2 || country == "ZZ")
        return std::nullopt;
    return CountryRange{line.first(first), line.first(second).sliced(first + 1), country};
}

QString rangeInsertStatement(qsizetype rows)
{
    return u"INSERT INTO tarn.geo_country (ip_from, ip_to, country) VALUES "_s
           + QStringList(rows, u"(CAST(? AS inet), CAST(? AS inet), ?)"_s).join(u", "_s)
           + u" ON CONFLICT DO NOTHING"_s;
}

} // namespace tarn::analytics
