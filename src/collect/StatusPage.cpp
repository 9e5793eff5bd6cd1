#include "collect/StatusPage.h"

#include "common/Http.h"

#include <QUrl>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

/// The page is some 1.5 kB and one byte a worker, of which Apache allows 20,000 by default. The total time
/// keeps a page that comes in drops from holding up the sample.
constexpr http::Limits kLimits{.silenceMs = 3'000, .totalMs = 10'000, .bodyBytes = 1'048'576};

constexpr int kStatusOk = 200;

} // namespace

QByteArray fetchStatusPage(const QString& url)
{
    const http::Answer answer = http::exchange({.url = QUrl(url)}, kLimits);
    return answer.failure == http::Failure::None && answer.status == kStatusOk ? answer.body : QByteArray();
}

} // namespace tarn
