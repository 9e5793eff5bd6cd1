// How figures read on the pages: groups of three with a narrow no-break space between them, ISO dates, units
// behind the number. The same in every locale.
#pragma once

#include <QDate>
#include <QDateTime>
#include <QString>

namespace tarn::report {

/// 1234567 -> "1 234 567".
QString count(qint64 number);
/// With @p decimals places: 1234.5 -> "1 234.5". What is no number is "–".
QString decimal(double number, int decimals);
/// Powers of 1024: 1536 -> "1.5 KiB"; three digits at least from KiB on, no decimals for bytes.
QString bytes(double number);
/// 12.34 -> "12.3 %"; from 99.95 on without the decimal.
QString percent(double number);
/// Seconds: 83 -> "1 min 23 s", 7500 -> "2 h 05 min", 3 days and more -> "3 d 4 h".
QString duration(double seconds);
/// Microseconds as milliseconds, from 10,000 ms on as seconds.
QString responseTime(double microseconds);
/// @p figure without a decimal or a last unit of nought, for a scale: "5.0 KiB" -> "5 KiB", "2 min 00 s" ->
/// "2 min".
QString scaleLabel(const QString& figure);
/// How @p now differs from @p before in per cent: "+12 %", "−3 %", "±0 %". "new" where there was nothing
/// before, "–" where there is nothing either.
QString change(double now, double before);
/// A difference of shares in percentage points: "+1.0 points".
QString points(double percent);
/// A difference of bytes with its sign.
QString growth(double bytes);

QString isoDate(QDate day);
/// "2026-11-21 16:05", in the zone of @p at.
QString isoMinute(const QDateTime& at);

} // namespace tarn::report
