#include "analytics/Ingest.h"

#include "analytics/Classifier.h"
#include "analytics/HitTransaction.h"
#include "analytics/LogParser.h"
#include "analytics/UrlText.h"
#include "common/Db.h"

#include <QCryptographicHash>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <QVariant>

#include <arpa/inet.h>

#include <limits>
#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::analytics {

namespace {

constexpr qsizetype kRowsPerInsert = HitTransaction::kRowsPerInsert;
constexpr qsizetype kMaxCountries = 200'000;
constexpr qsizetype kMaxSessions = 50'000;
constexpr qint64 kSessionGapSeconds = 1'800;

constexpr qsizetype kMaxMethodBytes = 16;
constexpr qsizetype kMaxPathLength = 2'000;
constexpr qsizetype kMaxReferrerBytes = 1'000;
constexpr double kMaxEngagedSeconds = 21'600;

/// Where the sites' tracking snippet reports how long a page was read: "/tarn-b?p=<path>&t=<seconds>".
constexpr QByteArrayView kBeaconPath = "/tarn-b";

/// SQLSTATE of a statement that names a missing table, or a table of a missing schema.
constexpr auto kUndefinedTable = "42P01"_L1;

/// Runs @p statement and goes to its first row; false when there is none. Failures are logged, except a
/// missing table, which the caller reports.
bool hasRow(QSqlQuery& query, const QString& statement)
{
    if (query.exec(statement))
        return query.next();
    if (query.lastError().nativeErrorCode() != kUndefinedTable)
        db::logFailure(query.lastError().text());
    return false;
}

/// NUL is the only character that PostgreSQL's text cannot hold. "%00" in a request makes one, and a
/// statement is cut there and fails.
QString withoutNuls(QString text)
{
    return text.remove(QChar::Null);
}

QVariant textOrNull(const QString& text)
{
    const QString value = db::storable(text);
    return value.isEmpty() ? QVariant() : QVariant(value);
}

/// True for what PostgreSQL takes as an inet. Qt's own reader also takes "1", "127.1" and "fe80::1%eth0".
bool isAddress(const QString& text)
{
    const QByteArray address = text.toLatin1();
    in6_addr parsed = {};
    return !address.contains('\0')
           && (inet_pton(AF_INET, address.constData(), &parsed) == 1
               || inet_pton(AF_INET6, address.constData(), &parsed) == 1);
}

/// True for the years that Qt can write and PostgreSQL can read.
bool isStorableTime(const QDateTime& at)
{
    const int year = at.date().year();
    return year >= 1 && year <= 9999;
}

struct Beacon
{
    QString path;
    double seconds = 0;
};

/// What the tracking snippet reports in @p query ("p=%2Fabout&t=12.5"); nothing when it makes no sense.
std::optional<Beacon> parseBeacon(QByteArrayView query)
{
    const QString path = withoutNuls(percentDecoded(queryItem(query, "p")).left(kMaxPathLength));
    const double seconds = queryNumber(query, "t");
    // NaN passes. The roll-up leaves it out of its sums, and the row still tells that the page was open.
    if (path.isEmpty() || 0 >= seconds || seconds > kMaxEngagedSeconds)
        return std::nullopt;
    return Beacon{path, seconds};
}

/// The number of a new session, outside a transaction.
std::optional<qint64> nextSessionAlone()
{
    QString error;
    const std::optional<qint64> id = nextSessionId(error);
    if (!id)
        db::logFailure(error);
    return id;
}

} // namespace

/// A pending hit.
struct Ingest::Row
{
    LogLine log; ///< method and status are overwritten for beacons
    QString path;
    bool page = false;
    QString ip; ///< empty when the log holds no valid address
    QByteArray visitor;
    qint64 session = 0;
    QString country;
    Source source;
    Client client;
    QVariant engagedSecs; ///< a double for beacons, else null
};

Ingest::Ingest() = default;
Ingest::~Ingest() = default;

bool Ingest::init()
{
    QSqlQuery query;
    if (!hasRow(query, u"SELECT value FROM tarn.settings WHERE key = 'visitor_secret'"_s))
        return false;
    m_secret = query.value(0).toString().toLatin1();
    m_haveGeo = hasRow(query, u"SELECT EXISTS (SELECT 1 FROM tarn.geo_country)"_s) && query.value(0).toBool();
    return true;
}

void Ingest::noteCountryLoad() const
{
    if (!m_haveGeo)
        qInfo("collect: geoip: hits get countries from the next start on; restart tarn-collect");
}

Ingest::Result Ingest::ingest(int siteId, const QString& host, const QList<QByteArray>& lines)
{
    Result result;
    QList<Row> rows;
    rows.reserve(kRowsPerInsert);
    const auto store = [&] {
        if (insertBatch(siteId, rows))
            result.stored += static_cast<int>(rows.size());
        rows.clear();
    };

    m_transaction = std::make_unique<HitTransaction>();
    for (const QByteArray& line : lines) {
        if (line.trimmed().isEmpty())
            continue;
        ++result.lines;
        std::optional<LogLine> log = parseCombined(line);
        if (!log || !isStorableTime(log->at)) {
            ++result.skipped;
            continue;
        }
        std::optional<Row> row = rowFor(std::move(*log));
        if (!row)
            continue;
        result.days.insert(row->log.at.toLocalTime().date());
        // Of a spoilt transaction nothing is kept: no id and no country is worth asking for.
        if (m_transaction->isSpoilt())
            continue;
        identify(*row, siteId, host);
        rows.append(std::move(*row));
        if (rows.size() == kRowsPerInsert)
            store();
    }
    store();
    m_transaction->commit();
    m_transaction.reset();

    pruneSessions();
    if (result.stored > 0 && db::session().isOpen()) {
        QSqlQuery query;
        query.prepare(u"SELECT pg_notify('tarn_hits', ?)"_s);
        query.addBindValue(QString::number(siteId));
        db::exec(query);
    }
    return result;
}

/// The hit that @p log tells of, as far as the line alone says it; nothing for a beacon that makes no sense.
std::optional<Ingest::Row> Ingest::rowFor(LogLine log)
{
    Row row;
    const qsizetype mark = log.target.indexOf('?');
    const QByteArray rawPath = mark < 0 ? log.target : log.target.first(mark);
    if (rawPath == kBeaconPath) {
        const std::optional<Beacon> beacon = parseBeacon(log.target.mid(kBeaconPath.size() + 1));
        if (!beacon)
            return std::nullopt;
        row.engagedSecs = beacon->seconds;
        row.path = beacon->path;
        log.method = "BEACON";
        log.status = 204;
    } else {
        row.path = withoutNuls(percentDecoded(rawPath));
        row.page = isPage(log.method, row.path);
    }
    if (isAddress(log.ip))
        row.ip = log.ip;
    row.log = std::move(log);
    return row;
}

/// Adds to @p row who sent it, in which session, and from where.
void Ingest::identify(Row& row, int siteId, const QString& host)
{
    const LogLine& log = row.log;
    row.visitor = visitorHash(siteId, log.ip, log.userAgent, log.at.date());
    row.session = sessionFor(row.visitor, log.at);
    row.country = country(row.ip);
    row.source = classifySource(log.referrer, log.target, host);
    row.client = classifyClient(log.userAgent);
}

bool Ingest::insertBatch(int siteId, const QList<Row>& rows)
{
    if (rows.isEmpty() || m_transaction->isSpoilt())
        return false;
    QSqlQuery& query = m_transaction->insertion(rows.size());
    for (const Row& row : rows) {
        query.addBindValue(siteId);
        query.addBindValue(row.log.at);
        query.addBindValue(db::storable(QString::fromLatin1(row.log.method.left(kMaxMethodBytes))));
        query.addBindValue(db::storable(row.path.left(kMaxPathLength)));
        query.addBindValue(row.log.status);
        query.addBindValue(row.log.bytes);
        query.addBindValue(row.page);
        query.addBindValue(textOrNull(row.ip));
        query.addBindValue(row.visitor);
        query.addBindValue(row.session);
        query.addBindValue(textOrNull(row.country));
        query.addBindValue(row.source.kind);
        query.addBindValue(textOrNull(row.source.name));
        query.addBindValue(textOrNull(QString::fromUtf8(row.log.referrer.left(kMaxReferrerBytes))));
        query.addBindValue(textOrNull(row.source.searchTerms));
        query.addBindValue(row.client.device);
        query.addBindValue(row.client.browser);
        query.addBindValue(row.client.os);
        query.addBindValue(textOrNull(row.client.bot));
        query.addBindValue(row.engagedSecs);
        const bool known = row.log.responseUs >= 0 && row.log.responseUs < std::numeric_limits<int>::max();
        query.addBindValue(known ? QVariant(static_cast<int>(row.log.responseUs)) : QVariant());
    }
    if (db::exec(query))
        return true;
    m_transaction->spoil();
    return false;
}

/// Bounds the memory that a flood of made-up user agents can take.
void Ingest::pruneSessions()
{
    if (m_sessions.size() <= kMaxSessions)
        return;
    const QDateTime oldest = QDateTime::currentDateTimeUtc().addSecs(-kSessionGapSeconds);
    m_sessions.removeIf([&oldest](const auto& entry) { return entry.value().last < oldest; });
}

void Ingest::rollup(int siteId, const QSet<QDate>& days)
{
    for (const QDate& day : days) {
        QSqlQuery query;
        query.prepare(u"SELECT tarn.rollup_day(?, ?)"_s);
        query.addBindValue(siteId);
        query.addBindValue(day);
        if (!db::exec(query) && !db::session().isOpen())
            return;
    }
}

QByteArray Ingest::visitorHash(int siteId, const QString& ip, const QByteArray& userAgent, QDate day) const
{
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(m_secret);
    hash.addData(day.toString(Qt::ISODate).toLatin1());
    hash.addData(QByteArray::number(siteId));
    hash.addData(ip.toLatin1());
    hash.addData(userAgent);
    return hash.result().first(8);
}

qint64 Ingest::sessionFor(const QByteArray& visitor, const QDateTime& at)
{
    Session& open = m_sessions[visitor];
    // Lines out of order give a negative gap, which counts as a short one.
    if (open.id == 0 || open.last.secsTo(at) > kSessionGapSeconds) {
        open.id = (m_transaction ? m_transaction->nextSession() : nextSessionAlone()).value_or(0);
    }
    if (!open.last.isValid() || at > open.last)
        open.last = at;
    return open.id;
}

QString Ingest::country(const QString& ip)
{
    if (!m_haveGeo)
        return {};
    if (const auto known = m_countries.constFind(ip); known != m_countries.constEnd())
        return *known;

    std::optional<QString> found;
    if (m_transaction) {
        found = m_transaction->country(ip);
    } else {
        QSqlQuery query;
        query.prepare(kCountryQuery);
        found = findCountry(query, ip);
    }
    // A lost session says nothing about the address, which comes again with the same line.
    if (!found && !db::session().isOpen())
        return {};
    if (m_countries.size() > kMaxCountries)
        m_countries.clear();
    m_countries.insert(ip, found.value_or(QString()));
    return found.value_or(QString());
}

} // namespace tarn::analytics
