// Numbers in the texts of the kernel and of Apache. Counters are never negative and never overflow, so that
// two of them can be subtracted. Functions of their arguments alone; none of them fails.
#pragma once

#include <QByteArrayView>

#include <optional>

namespace tarn {

/// Longer texts are no numbers: to read one takes Qt a hundred times as long as to pass over it. In bytes,
/// white space around the number included.
inline constexpr qsizetype kMaxNumberLength = 64;

/// @p text, white space around it included, as a number from 0 to 2^63 - 1. Anything else is 0: words,
/// fractions, negative numbers, texts of more than kMaxNumberLength bytes, and the upper half of the kernel's
/// own range, which ends at 2^64 - 1.
qint64 counter(QByteArrayView text);

/// @p a + @p b, at most 2^63 - 1. Neither is negative.
qint64 saturatingSum(qint64 a, qint64 b);

/// @p count * @p size, at most 2^63 - 1. @p count is not negative, @p size is above 0.
qint64 saturatingProduct(qint64 count, qint64 size);

/// A line "name: value": views of the line, for as long as its bytes last. The name has no white space around
/// it; the value is everything behind the colon.
struct NameAndValue
{
    QByteArrayView name;
    QByteArrayView value;
};

/// The two sides of the first colon: {"eth0", " 10 0"} for "  eth0: 10 0". Nothing without a colon.
std::optional<NameAndValue> splitAtColon(QByteArrayView line);

} // namespace tarn
