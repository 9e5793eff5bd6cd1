#include "common/Values.h"

#include <QtEndian>

#include <bit>

namespace tarn::db {

namespace {

constexpr qsizetype kBytesPerValue = 16;

/// PostgreSQL counts microseconds and days from here.
const QDate kEpoch(2000, 1, 1);

qint64 epochMs()
{
    static const qint64 ms = QDateTime(kEpoch, QTime(0, 0), Qt::UTC).toMSecsSinceEpoch();
    return ms;
}

} // namespace

void Values::reserve(qsizetype count)
{
    m_values.reserve(static_cast<std::size_t>(count));
    m_bytes.reserve(count * kBytesPerValue);
}

void Values::add(Kind kind, const char* bytes, qsizetype length)
{
    m_values.push_back({m_bytes.size(), static_cast<int>(length), kind});
    m_bytes.append(bytes, length);
}

template <typename Number>
void Values::addNumber(Kind kind, Number value)
{
    char bytes[sizeof(Number)];
    qToBigEndian(value, bytes);
    add(kind, bytes, sizeof(Number));
}

template <typename Number>
Number Values::number(qsizetype index) const
{
    return qFromBigEndian<Number>(bytes(index));
}

void Values::addBool(bool value)
{
    addNumber(Kind::Bool, static_cast<quint8>(value));
}

void Values::addInt(qint32 value)
{
    addNumber(Kind::Int, value);
}

void Values::addBigInt(qint64 value)
{
    addNumber(Kind::BigInt, value);
}

void Values::addDouble(double value)
{
    addNumber(Kind::Double, std::bit_cast<quint64>(value));
}

void Values::addText(const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    m_values.push_back({m_bytes.size(), static_cast<int>(utf8.size()), Kind::Text});
    m_bytes.append(utf8.constData(), utf8.size() + 1); // with the NUL behind it
}

void Values::addBytes(const QByteArray& bytes)
{
    add(Kind::Bytes, bytes.constData(), bytes.size());
}

void Values::addTime(const QDateTime& time)
{
    addNumber(Kind::Time, (time.toMSecsSinceEpoch() - epochMs()) * 1'000);
}

void Values::addDate(QDate date)
{
    addNumber(Kind::Date, static_cast<qint32>(kEpoch.daysTo(date)));
}

void Values::addNull(Kind kind)
{
    m_values.push_back({kNull, 0, kind});
}

const char* Values::bytes(qsizetype index) const
{
    const qsizetype offset = of(index).offset;
    return offset == kNull ? nullptr : m_bytes.constData() + offset;
}

QVariant Values::variant(qsizetype index) const
{
    const char* const data = bytes(index);
    if (!data)
        return {};
    switch (kind(index)) {
    case Kind::Bool:
        return *data != 0;
    case Kind::Int:
        return number<qint32>(index);
    case Kind::BigInt:
        return number<qint64>(index);
    case Kind::Double:
        return std::bit_cast<double>(number<quint64>(index));
    case Kind::Text:
        return length(index) == 0 ? QString(QLatin1StringView("")) : QString::fromUtf8(data, length(index));
    case Kind::Bytes:
        return QByteArray(data, length(index));
    case Kind::Time:
        return QDateTime::fromMSecsSinceEpoch(number<qint64>(index) / 1'000 + epochMs(), Qt::UTC);
    case Kind::Date:
        return kEpoch.addDays(number<qint32>(index));
    }
    return {};
}

} // namespace tarn::db
