#include "collect/StatusPage.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>
#include <QVariant>

#include <memory>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

/// The page is some 1.5 kB and one byte a worker, of which Apache allows 20,000 by default.
constexpr qint64 kMaxBytes = 1'048'576;

/// Without any data.
constexpr int kSilenceMs = 3'000;
/// For the whole of it: a page that comes in drops must not hold up the sample.
constexpr int kWholeMs = 10'000;

constexpr int kStatusOk = 200;

} // namespace

QByteArray fetchStatusPage(const QString& url)
{
    const QUrl address(url);
    // Qt would open files as well.
    if (address.scheme() != u"http"_s && address.scheme() != u"https"_s)
        return {};
    QNetworkRequest request(address);
    request.setTransferTimeout(kSilenceMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    // A compressed page could be small here and huge in memory.
    request.setRawHeader("Accept-Encoding", "identity");

    QNetworkAccessManager manager;
    const std::unique_ptr<QNetworkReply> reply(manager.get(request));
    QEventLoop loop;
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QObject::connect(reply.get(), &QNetworkReply::readyRead, reply.get(), [&reply] {
        if (reply->bytesAvailable() > kMaxBytes)
            reply->abort();
    });
    QTimer deadline;
    QObject::connect(&deadline, &QTimer::timeout, reply.get(), &QNetworkReply::abort);
    deadline.start(kWholeMs);
    loop.exec();

    if (!reply->isFinished()) // the process is told to end
        return {};
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() != QNetworkReply::NoError || status != kStatusOk)
        return {};
    QByteArray page = reply->readAll();
    // Of a page that is cut off Qt tells only sometimes: it depends on how the connection's end arrives.
    const QVariant announced = reply->header(QNetworkRequest::ContentLengthHeader);
    return announced.isValid() && announced.toLongLong() != page.size() ? QByteArray() : page;
}

} // namespace tarn
