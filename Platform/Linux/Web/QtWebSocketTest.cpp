#include "Platform/Linux/Web/QtWebSocket.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <memory>
#include <optional>
#include <string>

#include "Tests/QtPump.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

/// A server that takes the connection, perhaps opens the WebSocket, and then never says a word.
class QtWebSocketTest : public testing::Test {
protected:
    QtWebSocketTest() {
        EXPECT_TRUE(server.listen(QHostAddress::LocalHost));
        QObject::connect(&server, &QTcpServer::newConnection, &server, [this] {
            peer = server.nextPendingConnection();
            QObject::connect(peer, &QTcpSocket::readyRead, peer, [this] {
                received += peer->readAll();
                if (opens && received.contains("\r\n\r\n")) answer();
            });
        });
    }
    void answer() {
        opens = false;
        const auto start = received.indexOf("Sec-WebSocket-Key: ") + 19;
        const QByteArray key = received.mid(start, received.indexOf("\r\n", start) - start);
        const QByteArray accept =
            QCryptographicHash::hash(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11", QCryptographicHash::Sha1)
                .toBase64();
        peer->write(
            "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Accept: " +
            accept + "\r\n\r\n");
        received.clear();
    }
    void connect(const std::string& url, std::chrono::milliseconds openLimit = 20s) {
        QtWebSocketFactory factory({.openLimit = openLimit, .pingInterval = 10ms, .pongLimit = 50ms});
        socket = factory.open(url, 65536,
                              {.onOpen = [this] { opened = true; },
                               .onText = {},
                               .onEnd = [this](const WebSocket::End& how) { end = how; }});
    }
    std::string url() const { return "ws://127.0.0.1:" + std::to_string(server.serverPort()); }

    QtPump pump;
    QTcpServer server;
    QTcpSocket* peer = nullptr;
    QByteArray received;
    bool opens = true;
    bool opened = false;
    std::optional<WebSocket::End> end;
    std::unique_ptr<WebSocket> socket;
};

TEST_F(QtWebSocketTest, aServerThatFallsSilentIsGivenUp) {
    connect(url());
    ASSERT_TRUE(pump.until([this] { return end.has_value(); }));
    EXPECT_TRUE(opened);
    EXPECT_EQ(end->error, "the server does not answer");
    EXPECT_EQ(end->closeCode, std::nullopt);
    EXPECT_TRUE(received.startsWith('\x89')) << "a ping";
}

TEST_F(QtWebSocketTest, aServerThatDoesNotOpenIsGivenUp) {
    opens = false;
    connect(url(), 50ms);
    ASSERT_TRUE(pump.until([this] { return end.has_value(); }));
    EXPECT_FALSE(opened);
    EXPECT_EQ(end->error, "the server does not answer");
}

TEST_F(QtWebSocketTest, whatCannotBeOpenedEndsWithAnErrorAndNotFromInsideTheCall) {
    const std::string closedPort = url();
    server.close();
    for (const std::string& bad : {closedPort, std::string("rendezvous"), std::string("ftp://127.0.0.1/"),
                                   std::string("ws://"), std::string()}) {
        end.reset();
        connect(bad);
        EXPECT_FALSE(end) << bad;
        ASSERT_TRUE(pump.until([this] { return end.has_value(); })) << bad;
        EXPECT_NE(end->error, "") << bad;
    }
}

}  // namespace
}  // namespace velmora
