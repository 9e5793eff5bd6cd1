// Results of pure functions of bytes, remembered by those bytes. A function here is worth remembering when it
// costs more than a hash of its input, and when inputs come again.
#pragma once

#include <QByteArray>
#include <QHash>

namespace tarn::analytics {

/// Bounded whatever strangers send: it is emptied when it is full, and long keys are not kept.
template <typename Value>
class Remembered
{
public:
    static constexpr qsizetype kMaxEntries = 4'096;
    static constexpr qsizetype kMaxKeyBytes = 512;

    /// The result for @p key; @p function makes it when it is not known.
    template <typename Function>
    Value of(const QByteArray& key, Function function)
    {
        if (const auto known = m_values.constFind(key); known != m_values.constEnd())
            return *known;
        Value value = function();
        if (key.size() > kMaxKeyBytes)
            return value;
        if (m_values.size() == kMaxEntries)
            m_values.clear();
        m_values.insert(key, value);
        return value;
    }

    qsizetype size() const { return m_values.size(); }

private:
    QHash<QByteArray, Value> m_values;
};

} // namespace tarn::analytics
