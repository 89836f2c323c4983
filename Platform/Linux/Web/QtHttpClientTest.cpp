#include "Platform/Linux/Web/QtHttpClient.h"

#include <gtest/gtest.h>

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

class QtHttpClientTest : public testing::Test {
protected:
    QtHttpClientTest() {
        EXPECT_TRUE(server.listen(QHostAddress::LocalHost));
        QObject::connect(&server, &QTcpServer::newConnection, &server, [this] {
            auto* peer = server.nextPendingConnection();
            ++connections;
            QObject::connect(peer, &QTcpSocket::disconnected, peer, [this] { --connections; });
            QObject::connect(peer, &QTcpSocket::readyRead, peer, [this, peer] {
                request += peer->readAll();
                if (request.endsWith("{}")) peer->write(answer);
            });
        });
    }
    void post(std::chrono::milliseconds timeout = 20s) {
        client->post({.url = "http://127.0.0.1:" + std::to_string(server.serverPort()) + "/devices?x=1",
                      .contentType = "application/json",
                      .body = bytesOf("{}"),
                      .timeout = timeout},
                     [this](Result<HttpClient::Response> result) { response.emplace(std::move(result)); });
        EXPECT_FALSE(response);
    }
    bool answered() {
        return pump.until([this] { return response.has_value(); });
    }
    void answerWith(const QByteArray& head, const QByteArray& body) {
        answer =
            "HTTP/1.1 " + head + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
    }

    QtPump pump;
    QTcpServer server;
    QByteArray request, answer;
    int connections = 0;
    std::unique_ptr<QtHttpClient> client = std::make_unique<QtHttpClient>();
    std::optional<Result<HttpClient::Response>> response;
};

TEST_F(QtHttpClientTest, postsABodyAndHandsOverTheAnswer) {
    answerWith("200 OK", "{\"a\":1}");
    post();
    ASSERT_TRUE(answered());
    ASSERT_TRUE(*response);
    EXPECT_EQ((*response)->status, 200);
    EXPECT_EQ(textOf((*response)->body), "{\"a\":1}");
    EXPECT_TRUE(request.startsWith("POST /devices?x=1 HTTP/1.1\r\n"));
    EXPECT_TRUE(request.toLower().contains("content-type: application/json\r\n"));
}

TEST_F(QtHttpClientTest, anAnswerOfAnyStatusIsOneButARedirectionIsNotFollowed) {
    answerWith("404 Not Found", "gone");
    post();
    ASSERT_TRUE(answered());
    ASSERT_TRUE(*response);
    EXPECT_EQ((*response)->status, 404);
    EXPECT_EQ(textOf((*response)->body), "gone");

    response.reset();
    request.clear();
    answerWith("307 Elsewhere\r\nLocation: /other", "");
    post();
    ASSERT_TRUE(answered());
    ASSERT_TRUE(*response);
    EXPECT_EQ((*response)->status, 307);
    EXPECT_FALSE(request.contains("/other"));
}

TEST_F(QtHttpClientTest, withoutAWholeAnswerInTimeItFails) {
    post(50ms);  // the server is silent
    ASSERT_TRUE(answered());
    EXPECT_FALSE(*response);

    response.reset();
    request.clear();
    answer = "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf";
    post(50ms);
    ASSERT_TRUE(answered());
    EXPECT_FALSE(*response);

    response.reset();
    server.close();
    post();
    ASSERT_TRUE(answered());
    EXPECT_FALSE(*response);
}

TEST_F(QtHttpClientTest, anAnswerWithoutEndIsCutOff) {
    answer = "HTTP/1.1 200 OK\r\n\r\n" + QByteArray(HttpClient::longestBody + 1, 'x');
    post();
    ASSERT_TRUE(answered());
    EXPECT_FALSE(*response);
}

TEST_F(QtHttpClientTest, isSilentOnceItIsGone) {
    post();
    ASSERT_TRUE(pump.until([this] { return connections == 1; }));
    client.reset();
    EXPECT_TRUE(pump.until([this] { return connections == 0; }));
    EXPECT_FALSE(response);
}

}  // namespace
}  // namespace velmora
