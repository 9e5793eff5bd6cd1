// From the raw lines of one site's access log to stored hits: parses, classifies, gives each visitor a daily
// id and a session, looks up the country and writes the rows. Reads no file; its caller does. Remembers open
// sessions and known addresses, in memory only. Main thread only.
#pragma once

#include "analytics/Classifier.h"
#include "analytics/Remembered.h"

#include <QByteArray>
#include <QDate>
#include <QDateTime>
#include <QHash>
#include <QList>
#include <QSet>
#include <QString>

#include <memory>
#include <optional>

namespace tarn::db {
class Values;
}

namespace tarn::analytics {

class HitTransaction;
struct LogLine;

class Ingest
{
public:
    /// What became of the lines of one call.
    struct Result
    {
        int lines = 0;   ///< lines that are not blank
        int stored = 0;  ///< hits in batches that the database took; void when it refused a later one
        int skipped = 0; ///< lines that are not blank and no usable log entry
        /// Local calendar days of the hits, for a caller that has them counted with rollup(). The collector
        /// does not need them: the database notes days with news in tarn.rollup_due.
        QSet<QDate> days;
    };

    Ingest();
    ~Ingest();

    /// Reads the visitor secret, and whether the country table has rows. False when there is no secret, as in
    /// a database without the tables. Any other reason of the server's (a missing right, the end of the
    /// session) is logged. To be called once, before ingest(); later changes need a restart.
    bool init();

    /// To be called after each load of the country table. Logs a line when this process does not use the
    /// table, since it was empty at the start.
    void noteCountryLoad() const;

    /// Stores the hits in @p lines, given without their line feeds, in one transaction, and announces them on
    /// the channel "tarn_hits". A line that is no log entry is counted and costs nothing but itself. When the
    /// database refuses a batch, nothing of this call is kept. @p host is the site's name.
    Result ingest(int siteId, const QString& host, const QList<QByteArray>& lines);

    /// Has the database recompute a site's figures of the given local days, in any order and each in a
    /// transaction of its own. A day that fails is logged and costs no other day; after a lost session no
    /// further day is tried.
    static void rollup(int siteId, const QSet<QDate>& days);

    /// Eight bytes that stand for a visitor on one site and one UTC day. They are the first of the SHA-256 of
    /// secret, day ("2024-10-10"), site, address as logged and user agent, and cannot be reversed without the
    /// secret. Needs init().
    QByteArray visitorHash(int siteId, const QString& ip, const QByteArray& userAgent, QDate day) const;

    /// The id of the visitor's session: the open one when its last hit is at most 30 minutes before @p at,
    /// else a new one. 0 when the database gave none, which is logged once for each ingest().
    qint64 sessionFor(const QByteArray& visitor, const QDateTime& at);

    /// The upper-case ISO 3166-1 alpha-2 code of an IPv4 or IPv6 address, from tarn.geo_country. Empty when
    /// the address lies in no range, when the table was empty at init(), and when the question fails (logged;
    /// an address that the server refuses is not asked for again). Up to 200,000 answers are remembered.
    QString country(const QString& ip);

private:
    struct Session
    {
        qint64 id = 0;  ///< 0: none was assigned
        QDateTime last; ///< time of the last hit; invalid for a new entry

        bool isOverAt(const QDateTime& at) const; ///< a hit at that time begins a new one
        void note(const QDateTime& at);
    };
    struct Row;

    static std::optional<Row> rowFor(LogLine log);
    void identify(QList<Row>& rows, int siteId, const QString& host);
    QByteArray visitorOf(const LogLine& log, int siteId);
    Source sourceOf(const LogLine& log, const QString& host);
    void askAhead(const QList<Row>& rows);
    static void addColumns(db::Values& values, int siteId, const Row& row);
    bool insertBatch(int siteId, const QList<Row>& rows);
    void pruneSessions();

    QByteArray m_secret;
    QHash<QByteArray, Session> m_sessions; ///< by visitor id
    QHash<QString, QString> m_countries;   ///< by address
    Remembered<QByteArray> m_visitors;     ///< visitorHash() by site, day, address and user agent
    Remembered<Client> m_clients;          ///< classifyClient() by user agent
    Remembered<Source> m_sources;          ///< classifySource() by host and referrer, without a campaign
    bool m_haveGeo = false;
    std::unique_ptr<HitTransaction> m_transaction; ///< of the running ingest(); null between calls
};

/// The secret that visitors' ids are made with.
inline const QString kVisitorSecretQuery =
    QStringLiteral("SELECT value FROM tarn.settings WHERE key = 'visitor_secret'");
/// Whether the country table has any range.
inline const QString kHaveCountriesQuery = QStringLiteral("SELECT EXISTS (SELECT 1 FROM tarn.geo_country)");
/// Announces hits: site.
inline const QString kHitsNotification = QStringLiteral("SELECT pg_notify('tarn_hits', ?)");
/// Brings a day up to date: site, day.
inline const QString kRollUp = QStringLiteral("SELECT tarn.rollup_day(?, ?)");

} // namespace tarn::analytics
