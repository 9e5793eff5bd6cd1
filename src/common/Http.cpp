#include "common/Http.h"

#include "common/HttpTransfer.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <array>

using namespace Qt::Literals::StringLiterals;

namespace tarn::http {

namespace {

/// The statuses whose Location says where the requested resource is (RFC 9110, 15.4).
constexpr std::array kRedirectStatuses = {301, 302, 303, 307, 308};

bool isRedirect(const Answer& answer)
{
    return answer.failure == Failure::None
           && std::find(kRedirectStatuses.begin(), kRedirectStatuses.end(), answer.status)
                  != kRedirectStatuses.end();
}

/// Why a redirect to @p address, after @p followed others, is not followed; empty when it is.
QString objection(const QUrl& address, int followed)
{
    if (followed == kRedirects)
        return u"redirected more than %1 times"_s.arg(kRedirects);
    if (!address.isValid() || address.host().isEmpty() || address.scheme() != u"https"_s)
        return u"redirected to an address that is not https"_s;
    if (!address.userInfo().isEmpty())
        return u"redirected to an address with a user name"_s;
    return {};
}

/// What failed, in words. The library has described a Failure::Network already.
QString textOf(const Answer& answer, const Limits& limits)
{
    switch (answer.failure) {
    case Failure::Interrupted:
        return u"interrupted"_s;
    case Failure::Silence:
        return u"no data for %1 seconds"_s.arg(limits.silenceMs / 1'000);
    case Failure::TotalTime:
        return u"the answer takes too long"_s;
    case Failure::HeadTooLong:
        return u"the head of the answer has no end"_s;
    case Failure::BodyTooLong:
        return u"the answer has no end"_s;
    case Failure::Unanswered:
        return u"the server closed the connection without an answer"_s;
    case Failure::None:
    case Failure::Redirected:
    case Failure::Network:
        break;
    }
    return answer.error;
}

} // namespace

Answer exchange(const Request& request, const Limits& limits)
{
    if (request.url.scheme() != u"http"_s && request.url.scheme() != u"https"_s)
        return {.failure = Failure::Network, .error = u"not an http or https address"_s};
    const QDeadlineTimer deadline(limits.totalMs);
    qint64 headBytes = 0;
    Request next = request;
    for (int followed = 0;; ++followed) {
        Transfer transfer(next, limits);
        Answer answer = transfer.run(deadline, headBytes);
        answer.error = textOf(answer, limits);
        const QUrl address = transfer.redirect();
        if (request.redirects == Redirects::Refuse || !isRedirect(answer) || address.isEmpty())
            return answer;
        const QString reason = objection(address, followed);
        if (!reason.isEmpty())
            return {.status = answer.status, .failure = Failure::Redirected, .error = reason};
        next = Request{.url = address, .redirects = request.redirects, .encoding = request.encoding};
    }
}

QString problem(const Answer& answer)
{
    if (answer.failure != Failure::None)
        return answer.error;
    if (answer.status >= 200 && answer.status < 300)
        return {};
    if (answer.status >= 300 && answer.status < 400)
        return u"the server answered with a redirect (HTTP status %1)"_s.arg(answer.status);
    const auto text = u"the server answered with HTTP status %1"_s.arg(answer.status);
    return answer.reason.isEmpty() ? text : text + u": "_s + answer.reason;
}

} // namespace tarn::http
