// One request of an HTTP exchange, through libcurl's multi interface: its sockets and its timer are served by
// the local event loop that run() waits in. Private to the HTTP unit.
#pragma once

#include "common/HttpMessage.h"

#include <QEventLoop>
#include <QHash>
#include <QObject>
#include <QTimer>

#include <curl/curl.h>

#include <array>
#include <memory>

class QDeadlineTimer;
class QSocketNotifier;

namespace tarn::http {

class Transfer
{
public:
    /// For one run(). Neither argument is copied; of @p limits the total time is not looked at.
    Transfer(const Request& request, const Limits& limits);
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Sends the request and waits for the end of the answer, until @p deadline at most. @p headBytes counts
    /// the bytes of heads, on from what the exchange has had before.
    Answer run(const QDeadlineTimer& deadline, qint64& headBytes);

    /// Where the answer of a finished run() points to, as an absolute address; empty when it does not.
    QUrl redirect() const;

private:
    /// Frees what the library has made.
    template <auto free>
    struct Cleanup
    {
        template <typename Made>
        void operator()(Made* made) const
        {
            free(made);
        }
    };
    /// Who watches a socket of the library's: for reading and for writing.
    using Watch = std::array<QSocketNotifier*, 2>;

    template <typename Value>
    void set(CURLoption option, Value value);
    template <typename Value>
    void setMulti(CURLMoption option, Value value);
    void setUp();
    void setRequest();
    void setHeaders();
    void addHeader(const QByteArray& line);
    void setTrust();
    bool setProxy();

    void watch(int socket, int what);
    void serve(int socket, int what);
    size_t takeHead(const char* bytes, size_t size);
    size_t takeBody(const char* bytes, size_t size);
    void giveUp(Failure failure);
    Failure outcome() const;
    QString networkError() const;
    Answer answer();

    const Request& m_request;
    const Limits& m_limits;
    bool m_ready = true; ///< every option was taken
    bool m_throughProxy = false;
    bool m_finished = false;
    CURLcode m_code = CURLE_OK;
    Failure m_failure = Failure::None; ///< why it was given up
    Answer m_answer;
    bool m_headWhole = false; ///< of the latest head, up to the empty line
    qint64* m_headBytes = nullptr;
    qint64 m_headBytesBefore = 0;

    QObject m_context; ///< owns the notifiers
    QEventLoop m_loop;
    QTimer m_libraryTimer;
    QTimer m_silence;
    QHash<int, Watch> m_watches;
    std::array<char, CURL_ERROR_SIZE> m_errorText = {};
    std::unique_ptr<curl_slist, Cleanup<curl_slist_free_all>> m_headers;
    std::unique_ptr<CURL, Cleanup<curl_easy_cleanup>> m_easy;
    std::unique_ptr<CURLM, Cleanup<curl_multi_cleanup>> m_multi;
};

} // namespace tarn::http
