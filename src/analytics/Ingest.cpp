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

#include <arpa/inet.h>

#include <array>
#include <limits>
#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::analytics {

namespace {

constexpr qsizetype kRowsPerInsert = HitTransaction::kRowsPerInsert;
constexpr qsizetype kMaxCountries = 200'000;
constexpr qsizetype kMaxSessions = 50'000;
constexpr qint64 kSessionGapSeconds = 1'800;

/// The id of a session that is yet to be asked for.
constexpr qint64 kSessionToCome = -1;

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
    const db::Answer answer = db::ask(kNextSessionQuery, {});
    if (!answer.ok)
        db::logFailure(answer.error);
    return sessionOf(answer);
}

/// The local calendar days of one call's hits. The zone's rules are asked once for each quarter of an hour:
/// since 1973 every zone's offset has been a multiple of that.
class LocalDays
{
public:
    void add(const QDateTime& at)
    {
        const qint64 second = at.toSecsSinceEpoch();
        const qint64 quarter = second / kQuarterSeconds;
        if (second >= kFirstSecond && quarter == m_quarter)
            return;
        m_quarter = quarter;
        m_days.insert(at.toLocalTime().date());
    }
    const QSet<QDate>& days() const { return m_days; }

private:
    static constexpr qint64 kQuarterSeconds = 900;
    static constexpr qint64 kFirstSecond = 94'694'400; // 1973-01-01

    qint64 m_quarter = -1; // before kFirstSecond
    QSet<QDate> m_days;
};

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
    std::optional<double> engagedSecs; ///< for beacons
};

Ingest::Ingest() = default;
Ingest::~Ingest() = default;

bool Ingest::init()
{
    QSqlQuery query;
    if (!hasRow(query, kVisitorSecretQuery))
        return false;
    m_secret = query.value(0).toString().toLatin1();
    m_haveGeo = hasRow(query, kHaveCountriesQuery) && query.value(0).toBool();
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
    LocalDays days;
    QList<Row> rows;
    rows.reserve(kRowsPerInsert);
    const auto store = [&] {
        identify(rows, siteId, host);
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
        days.add(row->log.at);
        // Of a spoilt transaction nothing is kept: no id and no country is worth asking for.
        if (m_transaction->isSpoilt())
            continue;
        rows.append(std::move(*row));
        if (rows.size() == kRowsPerInsert)
            store();
    }
    store();
    m_transaction->commit();
    m_transaction.reset();
    result.days = days.days();

    pruneSessions();
    if (result.stored > 0 && db::session().isOpen()) {
        db::Values site;
        site.addText(QString::number(siteId));
        db::exec(kHitsNotification, site);
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

/// Adds to each of @p rows who sent it, in which session, and from where.
void Ingest::identify(QList<Row>& rows, int siteId, const QString& host)
{
    for (Row& row : rows)
        row.visitor = visitorOf(row.log, siteId);
    askAhead(rows);
    for (Row& row : rows) {
        if (m_transaction->isSpoilt())
            return;
        row.session = sessionFor(row.visitor, row.log.at);
        row.country = country(row.ip);
        row.source = sourceOf(row.log, host);
        const QByteArray& agent = row.log.userAgent;
        row.client = m_clients.of(agent, [&agent] { return classifyClient(agent); });
    }
}

QByteArray Ingest::visitorOf(const LogLine& log, int siteId)
{
    const QDate day = log.at.date();
    const std::array<qint64, 2> numbers = {siteId, day.toJulianDay()};
    QByteArray key;
    key.reserve(static_cast<qsizetype>(sizeof numbers) + log.ip.size() + 1 + log.userAgent.size());
    key.append(reinterpret_cast<const char*>(numbers.data()), sizeof numbers);
    key.append(log.ip.toLatin1());
    key.append(' '); // which no address has in it
    key.append(log.userAgent);
    return m_visitors.of(key, [&] { return visitorHash(siteId, log.ip, log.userAgent, day); });
}

Source Ingest::sourceOf(const LogLine& log, const QString& host)
{
    const auto judge = [&] { return classifySource(log.referrer, log.target, host); };
    // The target counts for a campaign in its query only, whose name can be percent-encoded.
    const qsizetype mark = log.target.indexOf('?');
    const QByteArrayView query = mark < 0 ? QByteArrayView() : QByteArrayView(log.target).sliced(mark);
    if (query.contains('%') || query.contains("utm_source"))
        return judge();
    return m_sources.of(host.toUtf8() + ' ' + log.referrer, judge);
}

/// Makes all look-ups that @p rows will need, in their order, at once.
void Ingest::askAhead(const QList<Row>& rows)
{
    QList<HitTransaction::LookUp> lookUps;
    QHash<QByteArray, Session> sessions; // as they will be behind the rows so far
    sessions.reserve(rows.size());
    QSet<QString> addresses;
    for (const Row& row : rows) {
        auto session = sessions.find(row.visitor);
        if (session == sessions.end())
            session = sessions.insert(row.visitor, m_sessions.value(row.visitor));
        if (session->isOverAt(row.log.at)) {
            session->id = kSessionToCome;
            lookUps.append(HitTransaction::LookUp());
        }
        session->note(row.log.at);
        // A text that is no address may be refused; it is asked for alone.
        if (!m_haveGeo || row.ip.isEmpty() || m_countries.contains(row.ip) || addresses.contains(row.ip))
            continue;
        addresses.insert(row.ip);
        lookUps.append({row.ip});
    }
    m_transaction->askAhead(lookUps);
}

void Ingest::Session::note(const QDateTime& at)
{
    if (!last.isValid() || at > last)
        last = at;
}

bool Ingest::Session::isOverAt(const QDateTime& at) const
{
    // Lines out of order give a negative gap, which counts as a short one.
    return id == 0 || last.secsTo(at) > kSessionGapSeconds;
}

/// Adds the columns of the insertion to @p values, in their order.
void Ingest::addColumns(db::Values& values, int siteId, const Row& row)
{
    using Kind = db::Values::Kind;
    const auto addText = [&values](const QString& text) { values.addText(db::storable(text)); };
    const auto addTextOrNull = [&values](const QString& text) {
        const QString value = db::storable(text);
        if (value.isEmpty()) {
            values.addNull(Kind::Text);
        } else {
            values.addText(value);
        }
    };
    const LogLine& log = row.log;
    values.addInt(siteId);
    values.addTime(log.at);
    addText(QString::fromLatin1(log.method.left(kMaxMethodBytes)));
    addText(row.path.left(kMaxPathLength));
    values.addInt(log.status);
    values.addBigInt(log.bytes);
    values.addBool(row.page);
    addTextOrNull(row.ip);
    values.addBytes(row.visitor);
    values.addBigInt(row.session);
    addTextOrNull(row.country);
    addText(row.source.kind);
    addTextOrNull(row.source.name);
    addTextOrNull(QString::fromUtf8(log.referrer.left(kMaxReferrerBytes)));
    addTextOrNull(row.source.searchTerms);
    addText(row.client.device);
    addText(row.client.browser);
    addText(row.client.os);
    addTextOrNull(row.client.bot);
    if (row.engagedSecs) {
        values.addDouble(*row.engagedSecs);
    } else {
        values.addNull(Kind::Double);
    }
    if (log.responseUs >= 0 && log.responseUs < std::numeric_limits<int>::max()) {
        values.addInt(static_cast<int>(log.responseUs));
    } else {
        values.addNull(Kind::Int);
    }
}

bool Ingest::insertBatch(int siteId, const QList<Row>& rows)
{
    if (rows.isEmpty() || m_transaction->isSpoilt())
        return false;
    db::Values values;
    values.reserve(rows.size() * kValuesPerHit);
    for (const Row& row : rows)
        addColumns(values, siteId, row);
    return m_transaction->insert(rows.size(), values);
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
        db::Values values;
        values.addInt(siteId);
        values.addDate(day);
        if (!db::exec(kRollUp, values) && !db::session().isOpen())
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
    if (open.isOverAt(at))
        open.id = (m_transaction ? m_transaction->nextSession() : nextSessionAlone()).value_or(0);
    open.note(at);
    return open.id;
}

QString Ingest::country(const QString& ip)
{
    if (!m_haveGeo)
        return {};
    if (const auto known = m_countries.constFind(ip); known != m_countries.constEnd())
        return *known;

    const std::optional<QString> found =
        m_transaction ? m_transaction->country(ip) : countryOf(db::ask(kCountryQuery, countryValues(ip)));
    // A lost session says nothing about the address, which comes again with the same line.
    if (!found && !db::session().isOpen())
        return {};
    if (m_countries.size() > kMaxCountries)
        m_countries.clear();
    m_countries.insert(ip, found.value_or(QString()));
    return found.value_or(QString());
}

} // namespace tarn::analytics
