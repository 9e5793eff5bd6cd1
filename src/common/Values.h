// The values of one statement in the order of its placeholders, packed as PostgreSQL takes them: numbers,
// times and bytes in the server's binary format (the type's "send" function in its source), texts as UTF-8.
#pragma once

#include <QByteArray>
#include <QDate>
#include <QDateTime>
#include <QString>
#include <QVariant>

#include <vector>

namespace tarn::db {

class Values
{
public:
    /// PostgreSQL's type of a value: boolean, integer, bigint, double precision, bytea, timestamptz and date.
    /// A Text takes the type that the statement gives its placeholder, such as text or inet.
    enum class Kind : quint8 { Bool, Int, BigInt, Double, Text, Bytes, Time, Date };

    /// Makes room for @p count values of some 16 bytes each.
    void reserve(qsizetype count);

    void addBool(bool value);
    void addInt(qint32 value);
    void addBigInt(qint64 value);
    void addDouble(double value);
    /// @p text has no NUL characters (see storable()): the server would get what stands before the first.
    void addText(const QString& text);
    void addBytes(const QByteArray& bytes);
    void addTime(const QDateTime& time); ///< to the millisecond
    void addDate(QDate date);
    void addNull(Kind kind);

    qsizetype size() const { return static_cast<qsizetype>(m_values.size()); }
    Kind kind(qsizetype index) const { return of(index).kind; }
    /// Where the value's bytes are, until another one is added; null for NULL. A text ends with a NUL.
    const char* bytes(qsizetype index) const;
    /// Without that NUL.
    int length(qsizetype index) const { return of(index).length; }

    /// The value as QSqlQuery takes it.
    QVariant variant(qsizetype index) const;

private:
    struct Value
    {
        qsizetype offset; ///< in m_bytes; kNull for NULL
        int length;
        Kind kind;
    };
    static constexpr qsizetype kNull = -1;

    const Value& of(qsizetype index) const { return m_values.at(static_cast<std::size_t>(index)); }
    void add(Kind kind, const char* bytes, qsizetype length);
    template <typename Number>
    void addNumber(Kind kind, Number value);
    template <typename Number>
    Number number(qsizetype index) const;

    QByteArray m_bytes;
    std::vector<Value> m_values;
};

} // namespace tarn::db
