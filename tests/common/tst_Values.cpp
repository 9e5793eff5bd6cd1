#include "common/Values.h"

#include <QTest>

#include <cmath>
#include <limits>

using namespace Qt::Literals::StringLiterals;
using tarn::db::Values;

class tst_Values : public QObject
{
    Q_OBJECT

private:
    static Values one(void (*add)(Values&))
    {
        Values values;
        add(values);
        return values;
    }

private Q_SLOTS:
    void packed_data()
    {
        QTest::addColumn<Values>("values");
        QTest::addColumn<Values::Kind>("kind");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QVariant>("variant");
        using Kind = Values::Kind;
        QTest::newRow("true") << one([](Values& v) { v.addBool(true); }) << Kind::Bool << QByteArray("\1")
                              << QVariant(true);
        QTest::newRow("false") << one([](Values& v) { v.addBool(false); }) << Kind::Bool
                               << QByteArray("\0", 1) << QVariant(false);
        QTest::newRow("integer") << one([](Values& v) { v.addInt(-2); }) << Kind::Int
                                 << QByteArray::fromHex("fffffffe") << QVariant(-2);
        QTest::newRow("bigint") << one([](Values& v) { v.addBigInt(0x0102030405060708); }) << Kind::BigInt
                                << QByteArray::fromHex("0102030405060708")
                                << QVariant(qint64(0x0102030405060708));
        QTest::newRow("double") << one([](Values& v) { v.addDouble(12.5); }) << Kind::Double
                                << QByteArray::fromHex("4029000000000000") << QVariant(12.5);
        QTest::newRow("text") << one([](Values& v) { v.addText(u"aé"_s); }) << Kind::Text
                              << QByteArray("a\xc3\xa9") << QVariant(u"aé"_s);
        QTest::newRow("empty-text") << one([](Values& v) { v.addText(u""_s); }) << Kind::Text
                                    << QByteArray("") << QVariant(u""_s);
        QTest::newRow("bytes") << one([](Values& v) { v.addBytes(QByteArray("\0a", 2)); }) << Kind::Bytes
                               << QByteArray("\0a", 2) << QVariant(QByteArray("\0a", 2));
        QTest::newRow("time") << one([](Values& v) {
            v.addTime(QDateTime(QDate(2000, 1, 1), QTime(0, 0, 1, 5), Qt::UTC));
        }) << Kind::Time << QByteArray::fromHex("00000000000f55c8")
                              << QVariant(QDateTime(QDate(2000, 1, 1), QTime(0, 0, 1, 5), Qt::UTC));
        QTest::newRow("time-before-the-epoch")
            << one([](Values& v) { v.addTime(QDateTime(QDate(1999, 12, 31), QTime(23, 59, 59), Qt::UTC)); })
            << Kind::Time << QByteArray::fromHex("fffffffffff0bdc0")
            << QVariant(QDateTime(QDate(1999, 12, 31), QTime(23, 59, 59), Qt::UTC));
        QTest::newRow("date") << one([](Values& v) { v.addDate(QDate(2000, 2, 1)); }) << Kind::Date
                              << QByteArray::fromHex("0000001f") << QVariant(QDate(2000, 2, 1));
    }
    void packed()
    {
        QFETCH(const Values, values);
        QFETCH(const QByteArray, bytes);
        QFETCH(const QVariant, variant);
        QCOMPARE(values.size(), 1);
        QTEST(values.kind(0), "kind");
        QCOMPARE(QByteArray(values.bytes(0), values.length(0)), bytes);
        QCOMPARE(values.variant(0), variant);
        QVERIFY(!values.variant(0).isNull());
        if (values.kind(0) == Values::Kind::Text)
            QCOMPARE(values.bytes(0)[values.length(0)], '\0');
    }

    void nullHasAKindAndNoBytes()
    {
        Values values;
        values.addInt(1);
        values.addNull(Values::Kind::Double);
        values.addText(u"behind"_s);
        QCOMPARE(values.kind(1), Values::Kind::Double);
        QVERIFY(!values.bytes(1));
        QVERIFY(!values.variant(1).isValid());
        QCOMPARE(values.variant(0), QVariant(1));
        QCOMPARE(values.variant(2), QVariant(u"behind"_s));
    }

    void notANumberStaysOne()
    {
        Values values;
        values.addDouble(std::numeric_limits<double>::quiet_NaN());
        QVERIFY(std::isnan(values.variant(0).toDouble()));
    }

    void roomDoesNotChangeThem()
    {
        Values values;
        values.reserve(2);
        QCOMPARE(values.size(), 0);
        values.addText(QString(1'000, u'x'));
        values.addBool(true);
        QCOMPARE(values.variant(0), QVariant(QString(1'000, u'x')));
        QCOMPARE(values.variant(1), QVariant(true));
    }
};

QTEST_GUILESS_MAIN(tst_Values)
#include "tst_Values.moc"
