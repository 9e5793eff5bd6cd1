// The country table, tarn.geo_country: filled from DB-IP's free file of address ranges, which is published
// anew each month (https://db-ip.com/db/download/ip-to-country-lite, CC BY 4.0). Looking up an address is
// Ingest's part. Main thread only.
#pragma once

#include <QByteArrayView>
#include <QDate>
#include <QString>

#include <optional>

namespace tarn::analytics {

/// True unless the country table holds the file of this month, by the host's date: `geoip_month` of
/// tarn.settings is another month or is missing. Reconnects a lost session. False when the database cannot be
/// asked, which says nothing of the file; true when it refuses the question, which is not logged.
bool geoIpIsStale();
/// The same for the month of @p today, without reconnecting.
bool geoIpIsStale(QDate today);

/// Replaces the table with the ranges of this month's file, downloaded from DB-IP, or of @p file when one is
/// named: a copy of such a file, compressed (".gz") or not. Returns one line for the log and sets @p ok to
/// whether the new table is in place; when it is not, the old one is, with its month. Downloading runs a
/// local event loop, without a transaction, for six hours at most. While the ranges are being stored, other
/// sessions that read the table wait; a prepared statement that has waited finds it empty, once.
QString updateGeoIp(const QString& file, bool* ok);
/// The same with the file of the month of @p today.
QString updateGeoIp(const QString& file, bool* ok, QDate today);

/// A range of addresses, both ends included, as it stands in a line of the file:
///
///     1.0.0.0,1.0.0.255,AU
///     from    to        country
///
/// The views are into the line. The addresses are not checked: the database refuses bad ones.
struct CountryRange
{
    QByteArrayView from;
    QByteArrayView to;
    QByteArrayView country; ///< two characters, not "ZZ", which stands for unknown
};

/// The range in a line. Further fields are passed over. Nothing when there are fewer than three fields or the
/// third is no country, or when the line has more than 1,024 bytes.
std::optional<CountryRange> parseCountryRange(QByteArrayView line);

inline const QString kCountryTruncation = QStringLiteral("TRUNCATE tarn.geo_country");
/// The month of the file that the country table holds, "2024-10".
inline const QString kCountryMonthQuery =
    QStringLiteral("SELECT value FROM tarn.settings WHERE key = 'geoip_month'");
inline const QString kCountryMonthStorage =
    QStringLiteral("INSERT INTO tarn.settings VALUES ('geoip_month', ?) "
                   "ON CONFLICT (key) DO UPDATE SET value = excluded.value");

/// The statement that stores @p rows ranges at once, for 3 positional values a row.
QString rangeInsertStatement(qsizetype rows);

} // namespace tarn::analytics
