#include "collect/CounterText.h"

#include <QTest>

#include <limits>

using namespace tarn;

namespace {

constexpr qint64 kLargest = std::numeric_limits<qint64>::max();

} // namespace

class tst_CounterText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void counters_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<qint64>("value");
        QTest::newRow("zero") << QByteArray("0") << qint64(0);
        QTest::newRow("leading-zeros") << QByteArray("007") << qint64(7);
        QTest::newRow("white-space-around") << QByteArray(" 7\t\r") << qint64(7);
        QTest::newRow("largest") << QByteArray("9223372036854775807") << kLargest;
        QTest::newRow("largest-plus-one") << QByteArray("9223372036854775808") << qint64(0);
        QTest::newRow("largest-of-the-kernel") << QByteArray("18446744073709551615") << qint64(0);
        QTest::newRow("negative") << QByteArray("-1") << qint64(0);
        QTest::newRow("fraction") << QByteArray("1.5") << qint64(0);
        QTest::newRow("hexadecimal") << QByteArray("0x10") << qint64(0);
        QTest::newRow("unit") << QByteArray("7kB") << qint64(0);
        QTest::newRow("word") << QByteArray("many") << qint64(0);
        QTest::newRow("longest") << "17" + QByteArray(62, ' ') << qint64(17);
        QTest::newRow("longest-plus-one") << "17" + QByteArray(63, ' ') << qint64(0);
        QTest::newRow("empty") << QByteArray() << qint64(0);
    }
    void counters()
    {
        QFETCH(const QByteArray, text);
        QTEST(counter(text), "value");
    }

    void sumsStayAtTheLargestNumber()
    {
        QCOMPARE(saturatingSum(2, 3), 5);
        QCOMPARE(saturatingSum(kLargest - 1, 1), kLargest);
        QCOMPARE(saturatingSum(kLargest, 0), kLargest);
        QCOMPARE(saturatingSum(kLargest, 1), kLargest);
        QCOMPARE(saturatingSum(kLargest, kLargest), kLargest);
    }

    void productsStayAtTheLargestNumber()
    {
        QCOMPARE(saturatingProduct(3, 512), 1536);
        QCOMPARE(saturatingProduct(0, 512), 0);
        QCOMPARE(saturatingProduct(18'014'398'509'481'983, 512), 9'223'372'036'854'775'296);
        QCOMPARE(saturatingProduct(18'014'398'509'481'984, 512), kLargest);
        QCOMPARE(saturatingProduct(kLargest, 1), kLargest);
    }

    void splitsAtTheFirstColon()
    {
        const auto split = [](const QByteArray& line) {
            const std::optional<NameAndValue> entry = splitAtColon(line);
            return entry ? entry->name.toByteArray() + '|' + entry->value.toByteArray()
                         : QByteArray("nothing");
        };
        QCOMPARE(split("  eth0: 10 0\r"), QByteArray("eth0| 10 0\r"));
        QCOMPARE(split("eth0:1: 10"), QByteArray("eth0|1: 10"));
        QCOMPARE(split(":"), QByteArray("|"));
        QCOMPARE(split("face |bytes"), QByteArray("nothing"));
        QCOMPARE(split(""), QByteArray("nothing"));
    }
};

QTEST_GUILESS_MAIN(tst_CounterText)
#include "tst_CounterText.moc"
