#include "Platform/Linux/Web/QtHttpClient.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>
#include <utility>

namespace velmora {
namespace {

/// Errors from 200 on are what a server said; those below mean that there is no whole answer.
bool isAnswered(QNetworkReply::NetworkError error) {
    return error == QNetworkReply::NoError || error >= QNetworkReply::ContentAccessDenied;
}

Result<HttpClient::Response> responseOf(QNetworkReply& reply) {
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!isAnswered(reply.error()) || !status.isValid()) {
        return Failure{reply.errorString().toStdString(), static_cast<int>(reply.error())};
    }
    const QByteArray body = reply.readAll();
    return HttpClient::Response{.status = status.toInt(), .body = Bytes(body.begin(), body.end())};
}

}  // namespace

struct QtHttpClient::Manager {
    QNetworkAccessManager network;
};

QtHttpClient::QtHttpClient() : manager_(std::make_unique<Manager>()) {}

QtHttpClient::~QtHttpClient() = default;

void QtHttpClient::post(Post request, Completion completion) {
    QNetworkRequest head(QUrl(QString::fromStdString(request.url)));
    head.setHeader(QNetworkRequest::ContentTypeHeader, QString::fromStdString(request.contentType));
    head.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    const QByteArray body(reinterpret_cast<const char*>(request.body.data()),
                          static_cast<qsizetype>(request.body.size()));
    QNetworkReply* reply = manager_->network.post(head, body);
    QTimer::singleShot(request.timeout, reply, &QNetworkReply::abort);
    QObject::connect(reply, &QNetworkReply::readyRead, reply, [reply] {
        if (reply->bytesAvailable() > static_cast<qint64>(longestBody)) reply->abort();
    });
    QObject::connect(reply, &QNetworkReply::finished, &manager_->network,
                     [reply, completion = std::move(completion)] {
                         reply->deleteLater();
                         const auto tell = completion;  // a copy: it may destroy the client and this with it
                         tell(responseOf(*reply));
                     });
}

}  // namespace velmora
