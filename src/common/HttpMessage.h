// A request over HTTP, its answer, and the limits of an exchange, as records. Http exchanges them.
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QUrl>

namespace tarn::http {

/// All heads of an answer together: status lines and header fields of the answer itself and of answers before
/// it (1xx, redirects, a proxy's), and the fields behind a chunked body. Real ones have 0.5 to 8 kB.
constexpr qint64 kHeadBytes = 65'536;
/// The limit for connecting, with name look-up and TLS. The limit of silence applies instead if it is
/// shorter.
constexpr int kConnectMs = 120'000;
/// Redirects that are followed, one after the other.
constexpr int kRedirects = 5;
/// Characters of a server's own words that are shown.
constexpr qsizetype kReasonCharacters = 500;

enum class Method : quint8 { Get, Post };

enum class Redirects : quint8 {
    Refuse, ///< an answer of 300 to 399 is the answer
    Follow, ///< to https addresses without a user part, at most kRedirects; no header and no body travels
};

enum class Encoding : quint8 {
    Identity,   ///< the body as it came, whatever encoding the server claims for it
    Compressed, ///< asked for compressed, and decompressed
};

struct Request
{
    Method method = Method::Get;
    QUrl url; ///< http or https; its user part and its fragment are not sent
    /// Names and values. Characters that would end the line (CR, LF, NUL) are left out of the values.
    QList<QPair<QByteArray, QByteArray>> headers = {};
    QByteArray body = {}; ///< of a Post
    Redirects redirects = Redirects::Refuse;
    Encoding encoding = Encoding::Identity;
};

/// What is past a limit ends the exchange; what reaches it does not.
struct Limits
{
    int silenceMs = 0;    ///< how long nothing may come or go; 0 is no limit
    int totalMs = 0;      ///< from the call to the end of the answer, redirects included
    qint64 bodyBytes = 0; ///< of the body, decompressed
    qint64 headBytes = kHeadBytes;
};

enum class Failure : quint8 {
    None,        ///< there is a whole answer, of whatever status
    Interrupted, ///< the process is told to end
    Silence,
    TotalTime,
    HeadTooLong,
    BodyTooLong,
    Unanswered, ///< the connection ended before the first byte of an answer
    Redirected, ///< to where it is not followed
    Network,    ///< anything else: no such host, refused, not trusted, cut off, no HTTP
};

struct Answer
{
    int status = 0;       ///< 0 when there was no answer
    QString reason = {};  ///< the server's words behind the status, on one line; often empty
    QByteArray body = {}; ///< whole; empty after a failure
    Failure failure = Failure::None;
    QString error = {}; ///< why it failed, on one line; empty when failure is None
};

} // namespace tarn::http
