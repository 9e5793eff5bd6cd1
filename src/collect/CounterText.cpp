#include "collect/CounterText.h"

#include <algorithm>
#include <limits>

namespace tarn {

namespace {

constexpr qint64 kLargest = std::numeric_limits<qint64>::max();

} // namespace

qint64 counter(QByteArrayView text)
{
    return text.size() > kMaxNumberLength ? 0 : std::max(text.trimmed().toLongLong(), qint64(0));
}

qint64 saturatingSum(qint64 a, qint64 b)
{
    return a > kLargest - b ? kLargest : a + b;
}

qint64 saturatingProduct(qint64 count, qint64 size)
{
    return count > kLargest / size ? kLargest : count * size;
}

std::optional<NameAndValue> splitAtColon(QByteArrayView line)
{
    const qsizetype colon = line.indexOf(':');
    if (colon < 0)
        return std::nullopt;
    return NameAndValue{line.first(colon).trimmed(), line.sliced(colon + 1)};
}

} // namespace tarn
