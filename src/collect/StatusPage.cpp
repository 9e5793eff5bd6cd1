#include "collect/StatusPage.h"

#include "collect/CounterText.h"
#include "common/Http.h"
#include "common/Lines.h"

#include <QByteArrayView>
#include <QUrl>

#include <algorithm>
#include <limits>
#include <optional>

namespace tarn {

namespace {

/// The page has some 1.5 kB and one byte a worker, of which Apache allows 20,000 by default. The total time
/// keeps a page that comes byte by byte from holding up the sample.
constexpr http::Limits kLimits{.silenceMs = 3'000, .totalMs = 10'000, .bodyBytes = 1'048'576};

constexpr int kStatusOk = 200;
constexpr qint64 kKiloByte = 1024;

} // namespace

ApacheStatus parseApacheStatus(const QByteArray& text)
{
    ApacheStatus status;
    for (QByteArrayView rest(text); !rest.isEmpty();) {
        const std::optional<NameAndValue> entry = splitAtColon(takeLine(rest));
        if (!entry)
            continue;
        if (entry->name == "Total Accesses") {
            status.found = true;
            status.requests = counter(entry->value);
        } else if (entry->name == "Total kBytes") {
            status.bytes = saturatingProduct(counter(entry->value), kKiloByte);
        } else if (entry->name == "BusyWorkers") {
            const qint64 busy = counter(entry->value);
            status.busy = busy > std::numeric_limits<qint32>::max() ? 0 : static_cast<qint32>(busy);
        } else if (entry->name == "Scoreboard") {
            status.slotCount = static_cast<qint32>(
                std::min<qsizetype>(entry->value.trimmed().size(), std::numeric_limits<qint32>::max()));
        }
    }
    return status.found ? status : ApacheStatus();
}

QByteArray fetchStatusPage(const QString& url)
{
    const http::Answer answer = http::exchange({.url = QUrl(url)}, kLimits);
    return answer.failure == http::Failure::None && answer.status == kStatusOk ? answer.body : QByteArray();
}

} // namespace tarn
