// One HTTP exchange (RFC 9110 and 9112, HTTP/1.1 only): a request, its answer, and a limit for everything
// that the peer decides. Uses libcurl; docs/decisions/0004 says why. Logs nothing.
//
// An exchange has a connection of its own and sends its request once, even if no answer comes. It blocks its
// caller in a local event loop, which serves timers and notifications meanwhile. Exchanges may begin inside
// each other's waits. Any thread that can run an event loop may call it.
//
// Proxies are those that Qt knows: QNetworkProxy::setApplicationProxy(), else the variables https_proxy,
// http_proxy and no_proxy. No proxy is used for loopback addresses. Trusted authorities are those of
// QSslConfiguration::defaultConfiguration(), else those in the system's folders that Qt reads as well.
#pragma once

#include "common/HttpMessage.h"

#include <QString>

namespace tarn::http {

/// Sends @p request and waits for the end of the answer, within @p limits.
Answer exchange(const Request& request, const Limits& limits);

/// Why @p answer is not one of success (2xx): its error, else what its status says. Empty when it is.
QString problem(const Answer& answer);

} // namespace tarn::http
