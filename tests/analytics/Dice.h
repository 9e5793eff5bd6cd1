// Random numbers for the tests, the same in each run and on every machine, which the distributions of the
// standard library are not.
#pragma once

#include <QByteArray>
#include <QList>

#include <random>

namespace tarn::tests {

class Dice
{
public:
    explicit Dice(quint32 seed)
        : m_engine(seed)
    {
    }

    /// From 0 up to, not including, @p limit.
    int below(qsizetype limit) { return static_cast<int>(m_engine() % static_cast<quint64>(limit)); }

    bool oneIn(int count) { return below(count) == 0; }

    template <typename T>
    const T& oneOf(const QList<T>& choices)
    {
        return choices[below(choices.size())];
    }

    /// Up to @p most bytes of @p alphabet.
    QByteArray text(QByteArrayView alphabet, int most)
    {
        QByteArray result;
        for (int left = below(most + 1); left > 0; --left)
            result += alphabet[below(alphabet.size())];
        return result;
    }

private:
    std::mt19937 m_engine;
};

} // namespace tarn::tests
