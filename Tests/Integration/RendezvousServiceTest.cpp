// The built rendezvous service, and the sockets that hosts and viewers really use.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QWebSocket>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "Platform/Linux/EventLoop/QtMainQueue.h"
#include "Platform/Linux/Web/QtWebSocket.h"
#include "Rendezvous/WebServer.h"
#include "Tests/QtPump.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "VelmoraKit/Signaling/SignalingClient.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using namespace rendezvous;

/// A program that runs until this object ends.
class Program {
public:
    Program(const QString& file, const QStringList& arguments) {
        process_.setProcessChannelMode(QProcess::MergedChannels);
        process_.start(file, arguments);
    }
    ~Program() { kill(); }

    /// Waits until it says where it listens, as its own words have it; 0 if it does not.
    std::uint16_t port(QtPump& pump, const std::string& words) {
        std::smatch match;
        const std::regex pattern(words + "(\\d+)");
        pump.until([&] {
            said_ += process_.readAll().toStdString();
            return std::regex_search(said_, match, pattern) || process_.state() == QProcess::NotRunning;
        });
        return match.size() == 2 ? static_cast<std::uint16_t>(std::stoi(match[1])) : std::uint16_t{0};
    }
    void kill() {
        process_.kill();
        process_.waitForFinished();
    }
    /// The status it ends with when it is asked to.
    int terminate(QtPump& pump) {
        process_.terminate();
        pump.until([this] { return process_.state() == QProcess::NotRunning; });
        return process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
    }
    const std::string& said() {
        said_ += process_.readAll().toStdString();
        return said_;
    }

private:
    QProcess process_;
    std::string said_;
};

/// A host's or viewer's end, with all that it was told.
class Client {
public:
    Client(QtPump& pump, QtMainQueue& main, const std::string& url, const FromClient& greeting)
        : pump_(pump),
          client_(*SignalingUrl::parse(url), sockets_, main, {.firstRetry = 50ms, .longestRetry = 200ms}) {
        client_.onMessage = [this](const ToClient& message) { messages.push_back(message); };
        client_.onStateChange = [this](SignalingClient::State, const auto& reason) {
            lastReason = reason;
            goneAway = goneAway || reason == "closed by the server (1001)";
        };
        client_.connect([this, greeting] { client_.send(greeting); });
    }
    /// Waits for the next message, which has to be of this type.
    template <class Message>
    std::optional<Message> next() {
        if (!pump_.until([&] { return taken_ < messages.size(); })) return std::nullopt;
        const auto* message = std::get_if<Message>(&messages[taken_++]);
        EXPECT_TRUE(message) << "but " << encode(messages[taken_ - 1]);
        return message ? std::optional(*message) : std::nullopt;
    }
    void send(const FromClient& message) { client_.send(message); }

    std::vector<ToClient> messages;
    std::optional<std::string> lastReason;
    bool goneAway = false;

private:
    QtPump& pump_;
    QtWebSocketFactory sockets_;
    SignalingClient client_;
    std::size_t taken_ = 0;
};

/// Stands where a name would that leads to several nodes: takes each connection to the first that is there.
class Crossroads {
public:
    explicit Crossroads(std::vector<std::uint16_t> nodes) : nodes_(std::move(nodes)) {
        server_.listen(QHostAddress::LocalHost);
        QObject::connect(&server_, &QTcpServer::newConnection, &server_,
                         [this] { lead(server_.nextPendingConnection(), 0); });
    }
    std::uint16_t port() const { return server_.serverPort(); }

private:
    void lead(QTcpSocket* client, std::size_t node) {
        if (node == nodes_.size()) return client->abort();
        auto* onward = new QTcpSocket(client);
        QObject::connect(onward, &QTcpSocket::connected, client, [client, onward] {
            onward->write(client->readAll());
            QObject::connect(client, &QTcpSocket::readyRead, onward,
                             [client, onward] { onward->write(client->readAll()); });
            QObject::connect(onward, &QTcpSocket::readyRead, client,
                             [client, onward] { client->write(onward->readAll()); });
            QObject::connect(onward, &QTcpSocket::disconnected, client, [client] { client->abort(); });
            QObject::connect(client, &QTcpSocket::disconnected, onward, [onward] { onward->abort(); });
        });
        QObject::connect(onward, &QTcpSocket::errorOccurred, client, [this, client, onward, node] {
            if (onward->state() == QAbstractSocket::UnconnectedState && !onward->property("tried").toBool()) {
                onward->setProperty("tried", true);
                if (onward->bytesAvailable() == 0 && client->isOpen()) lead(client, node + 1);
            }
        });
        onward->connectToHost(QHostAddress::LocalHost, nodes_[node]);
    }
    QTcpServer server_;
    const std::vector<std::uint16_t> nodes_;
};

class RendezvousServiceTest : public testing::Test {
protected:
    std::unique_ptr<Program> start(QStringList more = {}) {
        more.prepend("--no-udp");
        return std::make_unique<Program>(RENDEZVOUS_PROGRAM, QStringList{"--listen", "127.0.0.1:0"} + more);
    }
    std::uint16_t portOf(Program& service) { return service.port(pump, "port "); }
    static std::string urlOf(std::uint16_t port, const char* scheme = "ws") {
        return std::string(scheme) + "://127.0.0.1:" + std::to_string(port);
    }
    std::unique_ptr<Client> host(const std::string& url) {
        return std::make_unique<Client>(
            pump, main, url, HostCreate{.hostId = "123456789", .password = "042137", .hostname = "Studio"});
    }
    std::unique_ptr<Client> viewer(const std::string& url, const std::string& password = "042137") {
        return std::make_unique<Client>(pump, main, url, Join{.id = "123456789", .password = password});
    }
    /// From the host's registration to the viewer's address at the host.
    void meet(const std::string& hostUrl, const std::string& viewerUrl) {
        const auto host = this->host(hostUrl);
        EXPECT_EQ(host->next<SessionCreated>().value_or(SessionCreated{}).publicAddress, "127.0.0.1");
        const auto viewer = this->viewer(viewerUrl);
        introduce(*host, *viewer);
        viewer->send(ViewerCandidates{"203.0.113.5:50000"});
        EXPECT_EQ(host->next<ViewerCandidates>(), ViewerCandidates{"203.0.113.5:50000"});
        viewer->send(Hangup{});
        EXPECT_TRUE(host->next<PeerLeft>());
    }
    void introduce(Client& host, Client& viewer) {
        EXPECT_EQ(viewer.next<JoinPending>(), JoinPending{"Studio"});
        const auto request = host.next<JoinRequest>();
        ASSERT_TRUE(request);
        host.send(Accept{.clientId = request->clientId, .candidates = {.quic = true, .fingerprint = "AB01"}});
        const auto toHost = host.next<Accepted>();
        const auto toViewer = viewer.next<Accepted>();
        ASSERT_TRUE(toHost && toViewer);
        EXPECT_EQ(toHost->sessionToken, toViewer->sessionToken);
        EXPECT_EQ(toViewer->hostCandidates->fingerprint, "AB01");
    }
    /// What comes back for these bytes.
    std::string answerTo(std::uint16_t port, const std::string& request) {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        socket.write(request.data(), static_cast<qint64>(request.size()));
        pump.until([&] { return socket.state() == QAbstractSocket::UnconnectedState; });
        return socket.readAll().toStdString();
    }

    QtPump pump;
    QtMainQueue main;
    QTemporaryDir folder;
};

TEST_F(RendezvousServiceTest, hostAndViewerMeetAndHearWhyNot) {
    const auto seen = folder.filePath("seen");
    auto service = start({"--seen-file", seen});
    auto url = urlOf(portOf(*service));
    meet(url, url);
    EXPECT_EQ(viewer(url)->next<Error>().value_or(Error{}).code, "offline");
    EXPECT_EQ(viewer(url, "999999")->next<Error>().value_or(Error{}).code, "wrong_password");

    const auto kept = host(url);
    EXPECT_TRUE(kept->next<SessionCreated>());
    EXPECT_EQ(service->terminate(pump), 0) << service->said();
    EXPECT_TRUE(kept->goneAway) << "with words, so that it comes back at once";
    EXPECT_EQ(QFile(seen).permissions() & (QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther),
              QFile::Permissions(QFile::ReadOwner));
    service = start({"--seen-file", seen});
    url = urlOf(portOf(*service));
    EXPECT_EQ(viewer(url)->next<Error>().value_or(Error{}).code, "offline") << "it remembers";
}

TEST_F(RendezvousServiceTest, underTlsItIsTheSame) {
    QProcess openssl;
    openssl.setWorkingDirectory(folder.path());
    openssl.start("openssl", {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                              "-nodes", "-keyout", "key.pem", "-out", "certificate.pem", "-days", "2",
                              "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"});
    ASSERT_TRUE(openssl.waitForFinished() && openssl.exitCode() == 0)
        << openssl.readAllStandardError().toStdString();
    const auto certificate = folder.filePath("certificate.pem");
    const auto before = QSslConfiguration::defaultConfiguration();
    auto trusting = before;
    trusting.setCaCertificates(QSslCertificate::fromPath(certificate));
    QSslConfiguration::setDefaultConfiguration(trusting);
    const auto service = start({"--certificate", certificate, "--key", folder.filePath("key.pem")});
    const auto port = portOf(*service);
    meet(urlOf(port, "wss"), urlOf(port, "wss"));
    EXPECT_EQ(answerTo(port, "GET /health HTTP/1.1\r\n\r\n").find("200 OK"), std::string::npos)
        << "in the clear";
    QSslConfiguration::setDefaultConfiguration(before);
    EXPECT_EQ(service->terminate(pump), 0);
}

TEST_F(RendezvousServiceTest, badInputIsAnsweredWithACodeAndEnds) {
    const auto service = start();
    const auto port = portOf(*service);
    const auto codeAfter = [&](const std::function<void(QWebSocket&)>& action) {
        QWebSocket socket;
        QObject::connect(&socket, &QWebSocket::connected, &socket, [&] { action(socket); });
        bool over = false;
        QObject::connect(&socket, &QWebSocket::disconnected, &socket, [&] { over = true; });
        socket.open(QUrl(QString::fromStdString(urlOf(port))));
        EXPECT_TRUE(pump.until([&] { return over; }));
        return static_cast<int>(socket.closeCode());
    };
    EXPECT_EQ(codeAfter([](auto& socket) { socket.sendTextMessage("{"); }), 1008);
    EXPECT_EQ(codeAfter([](auto& socket) { socket.sendTextMessage(QString(20'000, 'x')); }), 1009);
    EXPECT_EQ(codeAfter([](auto& socket) { socket.sendBinaryMessage("{}"); }), 1003);
    EXPECT_EQ(codeAfter([](auto& socket) {
                  for (int i = 0; i < 200; ++i) socket.sendTextMessage(R"({"type":"hangup"})");
              }),
              1008);
    const struct {
        std::string request, status;
    } requests[] = {
        {"BLAH\r\n\r\n", "400"},
        {"GET /" + std::string(9000, 'a') + " HTTP/1.1\r\n\r\n", "431"},
        {"POST /devices HTTP/1.1\r\nContent-Length: 100000\r\n\r\n", "413"},
        {"POST /devices HTTP/1.1\r\nContent-Length: 1\r\n\r\n{", "400"},
        {"GET /devices HTTP/1.1\r\n\r\n", "405"},
        {"GET /other HTTP/1.1\r\n\r\n", "404"},
        {"GET /health HTTP/1.1\r\n\r\n", "200"},
    };
    for (const auto& [request, status] : requests) {
        EXPECT_EQ(answerTo(port, request).substr(0, 12), "HTTP/1.1 " + status) << request.substr(0, 40);
    }
    EXPECT_NE(answerTo(port, "GET /metrics HTTP/1.1\r\n\r\n").find("\nvelmora_malformed_total 1\n"),
              std::string::npos);
    const std::string question = R"({"devices":[{"id":"123456789","password":"111111"}]})";
    const auto devices =
        answerTo(port, "POST /devices HTTP/1.1\r\nContent-Length: " + std::to_string(question.size()) +
                           "\r\n\r\n" + question);
    EXPECT_NE(devices.find("\"passwordChanged\":true"), std::string::npos) << devices;
}

TEST_F(RendezvousServiceTest, aCrowdOfHalfOpenSocketsPushesOutItself) {
    const auto service = start({"--connections", "40"});
    const auto port = portOf(*service);
    const auto settled = host(urlOf(port));
    EXPECT_TRUE(settled->next<SessionCreated>());
    std::vector<std::unique_ptr<QTcpSocket>> crowd;
    for (int i = 0; i < 100; ++i) {
        crowd.push_back(std::make_unique<QTcpSocket>());
        crowd.back()->connectToHost(QHostAddress::LocalHost, port);
    }
    EXPECT_TRUE(pump.until([&] {
        return std::count_if(crowd.begin(), crowd.end(), [](const auto& socket) {
                   return socket->state() == QAbstractSocket::UnconnectedState;
               }) >= 60;
    }));
    const auto late = viewer(urlOf(port));
    introduce(*settled, *late);
}

TEST_F(RendezvousServiceTest, nodesAreOneServiceAndOneMayBeKilled) {
    Program nats("/usr/sbin/nats-server", {"-a", "127.0.0.1", "-p", "-1"});
    const auto natsPort = nats.port(pump, "client connections on 127.0.0.1:");
    ASSERT_NE(natsPort, 0) << nats.said();
    const QString natsUrl = QString("nats://127.0.0.1:%1").arg(natsPort);
    const auto first = start({"--nats", natsUrl}), second = start({"--nats", natsUrl});
    const auto firstPort = portOf(*first), secondPort = portOf(*second);
    meet(urlOf(firstPort), urlOf(secondPort));

    // The name leads to the first node as long as it is there.
    Crossroads name({firstPort, secondPort});
    const auto host = this->host(urlOf(name.port()));
    EXPECT_TRUE(host->next<SessionCreated>());
    const auto before = viewer(urlOf(secondPort));
    introduce(*host, *before);
    first->kill();
    EXPECT_TRUE(host->next<SessionCreated>()) << "back at the other node";
    const auto after = viewer(urlOf(secondPort));
    introduce(*host, *after);
    EXPECT_EQ(before->messages.size(), 2U) << "a session goes on";

    // Without NATS a node goes on alone, and finds it again.
    nats.kill();
    const auto alone = viewer(urlOf(secondPort));
    introduce(*host, *alone);
}

TEST_F(RendezvousServiceTest, aPeerThatDoesNotAnswerPingsIsDropped) {
    ThreadQueue logic("logic");
    Metrics metrics;
    SeenHosts seen;
    NoNodeLink link;
    SocketBudget budget{{}};
    std::unique_ptr<MeetingPoint> point;
    logic.runSync([&] {
        point = std::make_unique<MeetingPoint>(
            MeetingPoint::Services{.queue = logic,
                                   .link = link,
                                   .seen = seen,
                                   .metrics = metrics,
                                   .clock = [] { return SeenHosts::Time{}; },
                                   .relay = [](HostNumber) { return std::optional<Relay>(); }},
            MeetingPoint::Parameters{});
    });
    WebContext context{.point = *point,
                       .logic = logic,
                       .metrics = metrics,
                       .budget = budget,
                       .proxies = {},
                       .metricsReaders = {},
                       .health = [] { return std::string(); },
                       .timing = {.beat = 10ms, .ping = 100ms}};
    auto server = WebServer::open({.listen = {"127.0.0.1:0"}, .tls = nullptr}, context);
    ASSERT_TRUE(server);
    const auto answering = host(urlOf((*server)->port()));
    EXPECT_TRUE(answering->next<SessionCreated>());
    QTcpSocket silent;
    silent.connectToHost(QHostAddress::LocalHost, (*server)->port());
    silent.write(
        "GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: "
        "13\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
    EXPECT_TRUE(pump.until([&] { return silent.state() == QAbstractSocket::UnconnectedState; }));
    const QByteArray heard = silent.readAll();
    EXPECT_EQ(heard.right(4), QByteArray("\x89\x00\x89\x00", 4)) << "two pings";
    EXPECT_FALSE(answering->lastReason) << "the one that answers is kept";
    (*server)->close();
    logic.runSync([&] { point.reset(); });
    logic.end();
}

}  // namespace
}  // namespace velmora
