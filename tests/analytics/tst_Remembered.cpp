#include "analytics/Remembered.h"

#include <QTest>

using tarn::analytics::Remembered;

class tst_Remembered : public QObject
{
    Q_OBJECT

private:
    int of(const QByteArray& key, int result)
    {
        return m_memory.of(key, [&] {
            ++m_calls;
            return result;
        });
    }

    Remembered<int> m_memory;
    int m_calls = 0;

private Q_SLOTS:
    void init()
    {
        m_memory = {};
        m_calls = 0;
    }

    void eachKeyIsAskedForOnce()
    {
        QCOMPARE(of("a", 1), 1);
        QCOMPARE(of("b", 2), 2);
        QCOMPARE(of("a", 3), 1);
        QCOMPARE(of("", 4), 4);
        QCOMPARE(of("", 5), 4);
        QCOMPARE(m_calls, 3);
    }

    void fullItIsEmptied()
    {
        for (int i = 0; i < Remembered<int>::kMaxEntries; ++i)
            of(QByteArray::number(i), i);
        QCOMPARE(m_memory.size(), Remembered<int>::kMaxEntries);
        QCOMPARE(of("0", -1), 0);
        QCOMPARE(of("one more", -2), -2);
        QCOMPARE(m_memory.size(), 1);
        QCOMPARE(of("0", -1), -1);
    }

    void longKeysAreNotKept()
    {
        const QByteArray longest(Remembered<int>::kMaxKeyBytes, 'x');
        of(longest, 1);
        QCOMPARE(m_memory.size(), 1);
        QCOMPARE(of(longest + 'x', 2), 2);
        QCOMPARE(of(longest + 'x', 3), 3);
        QCOMPARE(m_memory.size(), 1);
    }
};

QTEST_GUILESS_MAIN(tst_Remembered)
#include "tst_Remembered.moc"
