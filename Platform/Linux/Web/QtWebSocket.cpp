#include "Platform/Linux/Web/QtWebSocket.h"

#include <QObject>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>
#include <optional>
#include <utility>

namespace velmora {
namespace {

/// A QWebSocket may be emitting while it is let go, so its deletion always waits for the event loop.
class QtWebSocket final : public WebSocket {
public:
    QtWebSocket(const std::string& url, std::size_t longestMessage, Events events,
                QtWebSocketFactory::Parameters parameters)
        : events_(std::move(events)), parameters_(parameters), socket_(new QWebSocket) {
        socket_->setMaxAllowedIncomingMessageSize(longestMessage);
        socket_->setMaxAllowedIncomingFrameSize(longestMessage);
        listen();
        // Later: an URL of no use fails at once, and nothing may be told from inside this call.
        QTimer::singleShot(0, &context_, [this, address = QUrl(QString::fromStdString(url))] {
            expectWithin(parameters_.openLimit);
            socket_->open(address);
        });
    }

    ~QtWebSocket() override {
        if (!socket_) return;
        socket_->disconnect(&context_);
        socket_->abort();
        socket_->deleteLater();
    }

    void send(std::string text) override {
        if (socket_ && isOpen_) socket_->sendTextMessage(QString::fromStdString(text));
    }

    void close() override {
        if (!socket_) return;
        QWebSocket* leaving = std::exchange(socket_, nullptr);
        leaving->disconnect(&context_);
        silence_.stop();
        nextPing_.stop();
        if (!isOpen_) {
            leaving->abort();
            leaving->deleteLater();
            return;
        }
        QObject::connect(leaving, &QWebSocket::disconnected, leaving, &QObject::deleteLater);
        QTimer::singleShot(parameters_.farewellLimit, leaving, &QObject::deleteLater);
        leaving->close(QWebSocketProtocol::CloseCodeNormal);
        leaving->flush();
    }

private:
    void listen() {
        QObject::connect(socket_, &QWebSocket::connected, &context_, [this] {
            isOpen_ = true;
            silence_.stop();
            nextPing_.start(parameters_.pingInterval);
            if (const auto tell = events_.onOpen) tell();
        });
        QObject::connect(socket_, &QWebSocket::textMessageReceived, &context_, [this](const QString& text) {
            if (const auto tell = events_.onText) tell(text.toStdString());
        });
        QObject::connect(socket_, &QWebSocket::pong, &context_, [this] {
            silence_.stop();
            nextPing_.start(parameters_.pingInterval);
        });
        // Comes when a close frame has arrived. `closeCode` alone does not tell that one did: it says 1000
        // for a connection that just broke.
        QObject::connect(socket_, &QWebSocket::aboutToClose, &context_,
                         [this] { closeCode_ = static_cast<int>(socket_->closeCode()); });
        QObject::connect(socket_, &QWebSocket::disconnected, &context_,
                         [this] { end("the connection was closed"); });
        QObject::connect(socket_, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), &context_,
                         [this] { end(socket_->errorString().toStdString()); });

        silence_.setSingleShot(true);
        QObject::connect(&silence_, &QTimer::timeout, &context_,
                         [this] { end("the server does not answer"); });
        nextPing_.setSingleShot(true);
        QObject::connect(&nextPing_, &QTimer::timeout, &context_, [this] {
            expectWithin(parameters_.pongLimit);
            socket_->ping();
        });
    }

    void expectWithin(std::chrono::milliseconds limit) { silence_.start(limit); }

    /// May destroy us.
    void end(std::string error) {
        QWebSocket* ended = std::exchange(socket_, nullptr);
        ended->disconnect(&context_);
        ended->abort();
        ended->deleteLater();
        silence_.stop();
        nextPing_.stop();
        isOpen_ = false;
        if (const auto tell = events_.onEnd) tell({.closeCode = closeCode_, .error = std::move(error)});
    }

    const Events events_;
    const QtWebSocketFactory::Parameters parameters_;
    QWebSocket* socket_;  // ours until it has ended or been closed
    bool isOpen_ = false;
    std::optional<int> closeCode_;
    QTimer silence_;   // running while the server owes an answer
    QTimer nextPing_;  // running while open and it owes none
    QObject context_;  // goes first: no signal reaches us after it
};

}  // namespace

std::unique_ptr<WebSocket> QtWebSocketFactory::open(const std::string& url, std::size_t longestMessage,
                                                    WebSocket::Events events) {
    return std::make_unique<QtWebSocket>(url, longestMessage, std::move(events), parameters_);
}

}  // namespace velmora
