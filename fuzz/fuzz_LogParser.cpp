#include "analytics/LogParserReference.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace tarn::analytics;

namespace {

// The reference goes over a line once for each of its bytes. Apache's own limit of a request line is 8190
// bytes.
constexpr std::size_t kLongestLine = 8192;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > kLongestLine)
        return 0;
    const QByteArrayView line(data, static_cast<qsizetype>(size));
    const std::optional<LogLine> log = parseCombined(line);
    const QString difference = reference::difference(log, reference::parseCombined(line.toByteArray()));
    if (!difference.isEmpty()) {
        std::fprintf(stderr, "differs from the reference: %s\n", qPrintable(difference));
        std::abort();
    }
    return 0;
}
