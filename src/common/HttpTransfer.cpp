#include "common/HttpTransfer.h"

#include "common/HttpPeer.h"

#include <QDeadlineTimer>
#include <QNetworkProxy>
#include <QSocketNotifier>

#include <algorithm>
#include <csignal>
#include <optional>
#include <sys/socket.h>

using namespace Qt::Literals::StringLiterals;

namespace tarn::http {

namespace {

/// Google compresses only for agents whose name says so.
constexpr auto kUserAgent = "tarn-collect (gzip)";

/// The ways of signing in to a proxy. Kerberos is left out, since it would wait for another server.
constexpr auto kProxySignIn = static_cast<long>(CURLAUTH_BASIC | CURLAUTH_DIGEST | CURLAUTH_NTLM);

/// Prepares the library, once for the process.
bool initialise()
{
    static const bool ready = [] {
        // TLS writes its last message to a peer that may be gone. QProcess gives its children the default
        // again.
        return std::signal(SIGPIPE, SIG_IGN) != SIG_ERR && curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    }();
    return ready;
}

/// @p bytes of a peer or of the library as a text of one line.
QString shown(QByteArrayView bytes)
{
    QString text = QString::fromUtf8(bytes).left(kReasonCharacters);
    for (QChar& character : text) {
        if (!character.isPrint())
            character = u' ';
    }
    return text.trimmed();
}

/// The library has a limit of its own for one line of a head, CURL_MAX_HTTP_HEADER. Version 7 calls what is
/// past it a lack of memory.
bool isLineTooLong(CURLcode code)
{
#if LIBCURL_VERSION_NUM >= 0x080600
    if (code == CURLE_TOO_LARGE)
        return true;
#endif
    return code == CURLE_OUT_OF_MEMORY;
}

/// Children of the process must not keep the connection open.
curl_socket_t openSocket(void* /*user*/, curlsocktype /*purpose*/, curl_sockaddr* address)
{
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

} // namespace

Transfer::Transfer(const Request& request, const Limits& limits)
    : m_request(request)
    , m_limits(limits)
{
    if (!initialise())
        return;
    m_easy.reset(curl_easy_init());
    m_multi.reset(curl_multi_init());
    m_libraryTimer.setSingleShot(true);
    m_silence.setSingleShot(true);
    QObject::connect(&m_libraryTimer, &QTimer::timeout, &m_context,
                     [this] { serve(CURL_SOCKET_TIMEOUT, 0); });
    QObject::connect(&m_silence, &QTimer::timeout, &m_context, [this] { giveUp(Failure::Silence); });
}

Transfer::~Transfer()
{
    // Closes the connection, which ends the watches.
    if (m_multi && m_easy)
        curl_multi_remove_handle(m_multi.get(), m_easy.get());
    m_easy.reset();
    m_multi.reset();
}

template <typename Value>
void Transfer::set(CURLoption option, Value value)
{
    m_ready = curl_easy_setopt(m_easy.get(), option, value) == CURLE_OK && m_ready;
}

template <typename Value>
void Transfer::setMulti(CURLMoption option, Value value)
{
    m_ready = curl_multi_setopt(m_multi.get(), option, value) == CURLM_OK && m_ready;
}

void Transfer::setUp()
{
    const auto onSocket = [](CURL*, curl_socket_t socket, int what, void* self, void*) {
        static_cast<Transfer*>(self)->watch(socket, what);
        return 0;
    };
    const auto onTimer = [](CURLM*, long ms, void* self) {
        QTimer& timer = static_cast<Transfer*>(self)->m_libraryTimer;
        if (ms < 0) {
            timer.stop();
        } else {
            timer.start(static_cast<int>(std::min(ms, 86'400'000L)));
        }
        return 0;
    };
    setMulti(CURLMOPT_SOCKETFUNCTION, static_cast<curl_socket_callback>(onSocket));
    setMulti(CURLMOPT_SOCKETDATA, this);
    setMulti(CURLMOPT_TIMERFUNCTION, static_cast<curl_multi_timer_callback>(onTimer));
    setMulti(CURLMOPT_TIMERDATA, this);

    using Writer = size_t (*)(char*, size_t, size_t, void*);
    const auto onHead = [](char* bytes, size_t size, size_t count, void* self) {
        return static_cast<Transfer*>(self)->takeHead(bytes, size * count);
    };
    const auto onBody = [](char* bytes, size_t size, size_t count, void* self) {
        return static_cast<Transfer*>(self)->takeBody(bytes, size * count);
    };
    set(CURLOPT_HEADERFUNCTION, static_cast<Writer>(onHead));
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, static_cast<Writer>(onBody));
    set(CURLOPT_WRITEDATA, this);
    set(CURLOPT_ERRORBUFFER, m_errorText.data());
    set(CURLOPT_OPENSOCKETFUNCTION, &openSocket);
    set(CURLOPT_NOSIGNAL, 1L);
    // The end must not wait for a silent name server.
    set(CURLOPT_QUICK_EXIT, 1L);
}

void Transfer::setRequest()
{
    const QUrl url = m_request.url.adjusted(QUrl::RemoveUserInfo | QUrl::RemoveFragment);
    set(CURLOPT_URL, url.toEncoded().constData());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_PATH_AS_IS, 1L);
    set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    set(CURLOPT_USERAGENT, kUserAgent);
    set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
    set(CURLOPT_FOLLOWLOCATION, 0L);
    // On a connection that was used before, the library would send a request a second time.
    set(CURLOPT_FRESH_CONNECT, 1L);
    set(CURLOPT_FORBID_REUSE, 1L);
    set(CURLOPT_CONNECTTIMEOUT_MS,
        static_cast<long>(m_limits.silenceMs > 0 ? std::min(m_limits.silenceMs, kConnectMs) : kConnectMs));
    if (m_request.encoding == Encoding::Compressed)
        set(CURLOPT_ACCEPT_ENCODING, ""); // all that the library can
    if (m_request.method == Method::Post) {
        set(CURLOPT_POST, 1L);
        set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_request.body.size()));
        set(CURLOPT_POSTFIELDS, m_request.body.constData());
    }
    setHeaders();
}

void Transfer::addHeader(const QByteArray& line)
{
    curl_slist* longer = curl_slist_append(m_headers.get(), line.constData());
    m_ready = longer != nullptr && m_ready;
    if (longer && !m_headers)
        m_headers.reset(longer);
}

void Transfer::setHeaders()
{
    // A name alone removes a header that the library sends by itself.
    addHeader("Accept:");
    addHeader("Expect:");
    if (m_request.encoding == Encoding::Identity)
        addHeader("Accept-Encoding: identity");
    bool typed = false;
    for (const auto& [name, value] : m_request.headers) {
        QByteArray line = value;
        line.removeIf([](char c) { return c == '\r' || c == '\n' || c == '\0'; });
        // A name and a colon alone would remove a header.
        addHeader(name + (line.trimmed().isEmpty() ? QByteArray(";") : ": " + line));
        typed = typed || name.compare("Content-Type", Qt::CaseInsensitive) == 0;
    }
    if (!typed)
        addHeader("Content-Type:");
    set(CURLOPT_HTTPHEADER, m_headers.get());
    // The server's headers are not sent to a proxy.
    set(CURLOPT_HEADEROPT, static_cast<long>(CURLHEADER_SEPARATE));
}

void Transfer::setTrust()
{
    set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    // The library's default is a file of all authorities, which takes 30 ms to read.
    set(CURLOPT_CAINFO, nullptr);
    set(CURLOPT_CAPATH, nullptr);
    QByteArray pem = authorities();
    if (pem.isEmpty()) {
        set(CURLOPT_CAPATH, authorityFolders().constData());
        return;
    }
    curl_blob blob = {pem.data(), static_cast<size_t>(pem.size()), CURL_BLOB_COPY};
    set(CURLOPT_CAINFO_BLOB, &blob);
}

/// False when Qt knows no proxy that could be asked for the address.
bool Transfer::setProxy()
{
    const std::optional<QNetworkProxy> proxy = proxyFor(m_request.url);
    if (!proxy)
        return false;
    // Set in any case: the library would otherwise read variables of the environment by its own rules.
    const QByteArray address = addressOf(*proxy);
    m_throughProxy = !address.isEmpty();
    set(CURLOPT_PROXY, address.constData());
    set(CURLOPT_NOPROXY, "");
    set(CURLOPT_HTTPPROXYTUNNEL, isEncrypted(m_request.url) || !proxy->isCachingProxy() ? 1L : 0L);
    if (!proxy->user().isEmpty()) {
        set(CURLOPT_PROXYUSERNAME, proxy->user().toUtf8().constData());
        set(CURLOPT_PROXYPASSWORD, proxy->password().toUtf8().constData());
    }
    set(CURLOPT_PROXYAUTH, kProxySignIn);
    set(CURLOPT_SOCKS5_AUTH, static_cast<long>(CURLAUTH_BASIC));
    return true;
}

Answer Transfer::run(const QDeadlineTimer& deadline, qint64& headBytes)
{
    Answer failed{.failure = Failure::Network, .error = u"the HTTP library cannot be used"_s};
    if (!m_easy || !m_multi)
        return failed;
    m_headBytes = &headBytes;
    m_headBytesBefore = headBytes;
    setUp();
    setRequest();
    if (isEncrypted(m_request.url))
        setTrust();
    if (!setProxy()) {
        failed.error = u"no suitable proxy found"_s;
        return failed;
    }
    if (!m_ready || curl_multi_add_handle(m_multi.get(), m_easy.get()) != CURLM_OK)
        return failed;

    QTimer total;
    total.setSingleShot(true);
    QObject::connect(&total, &QTimer::timeout, &m_context, [this] { giveUp(Failure::TotalTime); });
    total.start(static_cast<int>(deadline.remainingTime()));
    if (m_limits.silenceMs > 0)
        m_silence.start(m_limits.silenceMs);
    m_loop.exec();
    if (!m_finished && m_failure == Failure::None) // the process is told to end
        m_failure = Failure::Interrupted;
    return answer();
}

void Transfer::watch(int socket, int what)
{
    if (what == CURL_POLL_REMOVE) {
        for (QSocketNotifier* notifier : m_watches.take(socket)) {
            // This may be the notifier that is being served.
            if (notifier) {
                notifier->setEnabled(false);
                notifier->deleteLater();
            }
        }
        return;
    }
    Watch& watch = m_watches[socket];
    constexpr std::array kinds = {std::pair(QSocketNotifier::Read, CURL_POLL_IN),
                                  std::pair(QSocketNotifier::Write, CURL_POLL_OUT)};
    for (size_t i = 0; i < kinds.size(); ++i) {
        const auto [type, wanted] = kinds.at(i);
        QSocketNotifier*& notifier = watch.at(i);
        if (!notifier && (what & wanted) != 0) {
            notifier = new QSocketNotifier(socket, type, &m_context);
            const int event = type == QSocketNotifier::Read ? CURL_CSELECT_IN : CURL_CSELECT_OUT;
            QObject::connect(notifier, &QSocketNotifier::activated, &m_context,
                             [this, socket, event] { serve(socket, event); });
        }
        if (notifier)
            notifier->setEnabled((what & wanted) != 0);
    }
}

/// Has the library go on after an event of @p socket, or after its own timer.
void Transfer::serve(int socket, int what)
{
    if (m_finished || m_failure != Failure::None)
        return;
    if (socket != CURL_SOCKET_TIMEOUT && m_limits.silenceMs > 0)
        m_silence.start(m_limits.silenceMs);
    int running = 0;
    curl_multi_socket_action(m_multi.get(), socket, what, &running);
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(m_multi.get(), &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        m_code = message->data.result;
        m_finished = true;
        m_loop.quit();
    }
}

/// Takes one line of a head; fewer bytes than it has end the transfer.
size_t Transfer::takeHead(const char* bytes, size_t size)
{
    *m_headBytes += static_cast<qint64>(size);
    if (*m_headBytes > m_limits.headBytes) {
        m_failure = Failure::HeadTooLong;
        return 0;
    }
    const QByteArrayView line(bytes, static_cast<qsizetype>(size));
    if (line == "\r\n" || line == "\n")
        m_headWhole = true;
    if (line.startsWith("HTTP/")) { // "HTTP/1.1 404 Not Found"
        m_headWhole = false;
        const qsizetype status = line.indexOf(' ') + 1;
        const qsizetype reason = status == 0 ? 0 : line.indexOf(' ', status) + 1;
        m_answer.reason = reason == 0 ? QString() : shown(line.sliced(reason));
    }
    return size;
}

size_t Transfer::takeBody(const char* bytes, size_t size)
{
    if (m_answer.body.size() + static_cast<qint64>(size) > m_limits.bodyBytes) {
        m_failure = Failure::BodyTooLong;
        return 0;
    }
    m_answer.body.append(bytes, static_cast<qsizetype>(size));
    return size;
}

void Transfer::giveUp(Failure failure)
{
    if (m_finished || m_failure != Failure::None)
        return;
    m_failure = failure;
    m_loop.quit();
}

/// The reason of @ref m_code, in words.
QString Transfer::networkError() const
{
    long systemError = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_OS_ERRNO, &systemError);
    if (m_code == CURLE_COULDNT_CONNECT && systemError != 0) {
        // "Connection refused" says more than the library's "Couldn't connect to server".
        const QString text = qt_error_string(static_cast<int>(systemError));
        return m_throughProxy ? u"Proxy "_s + text.first(1).toLower() + text.sliced(1) : text;
    }
    const char* text = m_errorText.front() != '\0' ? m_errorText.data() : curl_easy_strerror(m_code);
    return shown(text);
}

/// What became of a transfer that was not given up.
Failure Transfer::outcome() const
{
    if (m_code == CURLE_OK)
        return Failure::None;
    if (m_code == CURLE_OPERATION_TIMEDOUT)
        return Failure::Silence;
    if (isLineTooLong(m_code))
        return Failure::HeadTooLong;
    long sentBytes = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_REQUEST_SIZE, &sentBytes);
    const bool silent = *m_headBytes == m_headBytesBefore;
    if (m_code == CURLE_GOT_NOTHING || (m_code == CURLE_RECV_ERROR && silent && sentBytes > 0))
        return Failure::Unanswered;
    return Failure::Network;
}

Answer Transfer::answer()
{
    long status = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_RESPONSE_CODE, &status);
    m_answer.status = static_cast<int>(status);
    if (m_failure == Failure::None)
        m_failure = outcome();
    m_answer.failure = m_failure;
    if (m_failure == Failure::Network)
        m_answer.error = networkError();
    // The library takes a head that the end of the connection cuts for a whole one.
    if (m_failure == Failure::None && !m_headWhole) {
        m_answer.failure = Failure::Network;
        m_answer.error = u"the connection ended in the head of the answer"_s;
    }
    if (m_answer.failure != Failure::None)
        m_answer.body.clear();
    return m_answer;
}

QUrl Transfer::redirect() const
{
    const char* address = nullptr;
    curl_easy_getinfo(m_easy.get(), CURLINFO_REDIRECT_URL, &address);
    return address ? QUrl::fromEncoded(address) : QUrl();
}

} // namespace tarn::http
