#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QHostAddress>
#include <QWebSocket>
#include <QWebSocketServer>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Linux/Web/QtWebSocket.h"
#include "Testing/FakeWebSocket.h"
#include "Tests/QtPump.h"

namespace velmora {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct FakeFixture {
    FakeWebSocketFactory factory;

    std::string url() { return "ws://fake"; }
    template <class F>
    bool until(F condition) {
        if (!factory.ends.empty()) factory.newest().open();
        return condition();
    }
    void sendText(const std::string& text) { factory.newest().sendText(text); }
    void close(int code) { factory.newest().close(code); }
    void breakOff() { factory.newest().fail("reset"); }
    std::vector<std::string> received() { return factory.newest().received; }
    bool sawGoodbye() { return factory.newest().closedByClient; }
};

/// A real server on the loopback, in the same event loop.
struct QtFixture {
    QtFixture() {
        EXPECT_TRUE(server.listen(QHostAddress::LocalHost));
        QObject::connect(&server, &QWebSocketServer::newConnection, &server, [this] {
            peer.reset(server.nextPendingConnection());
            QObject::connect(peer.get(), &QWebSocket::textMessageReceived, peer.get(),
                             [this](const QString& text) { texts.push_back(text.toStdString()); });
            QObject::connect(peer.get(), &QWebSocket::aboutToClose, peer.get(),
                             [this] { goodbye = peer->closeCode() == 1000; });
        });
    }
    QtPump pump;
    QWebSocketServer server{"test", QWebSocketServer::NonSecureMode};
    std::unique_ptr<QWebSocket> peer;
    std::vector<std::string> texts;
    bool goodbye = false;
    QtWebSocketFactory factory;

    std::string url() { return server.serverUrl().toString().toStdString(); }
    template <class F>
    bool until(F condition) {
        return pump.until(condition);
    }
    void sendText(const std::string& text) { peer->sendTextMessage(QString::fromStdString(text)); }
    void close(int code) { peer->close(static_cast<QWebSocketProtocol::CloseCode>(code)); }
    void breakOff() { peer->abort(); }
    std::vector<std::string> received() { return texts; }
    bool sawGoodbye() { return goodbye; }
};

template <class Fixture>
class WebSocketContractTest : public testing::Test {
protected:
    void open(std::size_t longestMessage = 65536) {
        socket = fixture.factory.open(fixture.url(), longestMessage,
                                      {.onOpen = [this] { ++opened; },
                                       .onText = [this](const std::string& text) { texts.push_back(text); },
                                       .onEnd = [this](const WebSocket::End& end) { ends.push_back(end); }});
        EXPECT_EQ(opened, 0) << "not from inside the call";
        ASSERT_TRUE(fixture.until([this] { return opened == 1; }));
    }
    bool ended() {
        return fixture.until([this] { return !ends.empty(); });
    }

    Fixture fixture;
    int opened = 0;
    std::vector<std::string> texts;
    std::vector<WebSocket::End> ends;
    std::unique_ptr<WebSocket> socket;
};
using Fixtures = testing::Types<FakeFixture, QtFixture>;
TYPED_TEST_SUITE(WebSocketContractTest, Fixtures);

TYPED_TEST(WebSocketContractTest, carriesTextBothWays) {
    this->open();
    this->socket->send("grüße");
    ASSERT_TRUE(this->fixture.until([this] { return this->fixture.received().size() == 1; }));
    EXPECT_THAT(this->fixture.received(), ElementsAre("grüße"));
    this->fixture.sendText("zurück");
    this->fixture.sendText(std::string(65536, 'x'));
    ASSERT_TRUE(this->fixture.until([this] { return this->texts.size() == 2; }));
    EXPECT_EQ(this->texts[0], "zurück");
    EXPECT_EQ(this->texts[1].size(), 65536u);
    EXPECT_THAT(this->ends, IsEmpty());
}

TYPED_TEST(WebSocketContractTest, tellsTheCodeWithWhichTheServerCloses) {
    this->open();
    this->fixture.close(4001);
    ASSERT_TRUE(this->ended());
    EXPECT_EQ(this->ends[0].closeCode, 4001);
}

TYPED_TEST(WebSocketContractTest, aBrokenConnectionHasNoCodeButAnError) {
    this->open();
    this->fixture.breakOff();
    ASSERT_TRUE(this->ended());
    EXPECT_EQ(this->ends[0].closeCode, std::nullopt);
    EXPECT_NE(this->ends[0].error, "");
    this->socket->send("into the void");
    EXPECT_EQ(this->ends.size(), 1u);
}

TYPED_TEST(WebSocketContractTest, aMessageThatIsTooLongEndsIt) {
    this->open(100);
    this->fixture.sendText(std::string(101, 'x'));
    ASSERT_TRUE(this->ended());
    EXPECT_THAT(this->texts, IsEmpty());
}

TYPED_TEST(WebSocketContractTest, whatWasSentLeavesBeforeItsGoodbye) {
    this->open();
    const std::string large(60000, 'y');
    this->socket->send(large);
    this->socket->send("last");
    this->socket->close();
    this->socket.reset();
    ASSERT_TRUE(this->fixture.until([this] { return this->fixture.sawGoodbye(); }));
    EXPECT_THAT(this->fixture.received(), ElementsAre(large, "last"));
    EXPECT_THAT(this->ends, IsEmpty());
}

TYPED_TEST(WebSocketContractTest, anyEventMayDestroyIt) {
    const auto drop = [this](auto&&...) {
        this->socket.reset();
        ++this->opened;
    };
    const auto open = [&](WebSocket::Events events) {
        this->opened = 0;
        this->socket = this->fixture.factory.open(this->fixture.url(), 65536, std::move(events));
    };
    const auto dropped = [this] { return this->fixture.until([this] { return !this->socket; }); };
    open({.onOpen = drop});
    EXPECT_TRUE(dropped());

    open({.onOpen = [this] { ++this->opened; }, .onText = drop});
    ASSERT_TRUE(this->fixture.until([this] { return this->opened == 1; }));
    this->fixture.sendText("x");
    EXPECT_TRUE(dropped());

    open({.onOpen = [this] { ++this->opened; }, .onEnd = drop});
    ASSERT_TRUE(this->fixture.until([this] { return this->opened == 1; }));
    this->fixture.close(1001);
    EXPECT_TRUE(dropped());
}

}  // namespace
}  // namespace velmora
