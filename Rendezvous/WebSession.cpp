// The one file that knows Beast: its templates take longer to compile than all the rest together.

#include "Rendezvous/WebSession.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <optional>
#include <utility>

#include "Rendezvous/MessageAllowance.h"

namespace velmora {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

using ErrorCode = beast::error_code;
using Request = http::request<http::string_body>;

constexpr int mostMisses = 2;
constexpr std::size_t longestHead = 8192;
constexpr std::size_t longestBody = 65536;
// A host tells its addresses, a viewer a password: a tenth of this.
constexpr std::size_t longestMessage = 16384;
constexpr std::size_t mostUnsent = 128;  // messages to one that does not take them

class Session final : public WebSession, public std::enable_shared_from_this<Session> {
public:
    Session(SocketId id, ClientAddress from, ClientStream::Socket socket, const TlsContext& tls,
            WebContext& context)
        : id_(id),
          address_(std::move(from)),
          context_(context),
          executor_(socket.get_executor()),
          http_(std::make_unique<HttpPhase>(std::move(socket), tls)) {}

    SocketId id() const override { return id_; }
    const ClientAddress& address() const override { return address_; }
    void send(std::string text) override {
        onThread([text = std::move(text)](Session& self) mutable { self.enqueue(std::move(text)); });
    }
    void probe() override {
        onThread([](Session& self) { self.ping(); });
    }
    void settle() override { context_.budget.settle(id_); }
    void close(CloseReason code, std::string_view reason) override {
        onThread([code, reason = std::string(reason)](Session& self) mutable {
            self.closeSocket(code, std::move(reason));
        });
    }

    void start() override {
        deadline_ = HostClock::now() + context_.timing.request;
        http_->stream.async_handshake([self = shared_from_this()](ErrorCode error) {
            if (error) return self->end();
            self->readRequest();
        });
    }
    void beat() override {
        const auto now = HostClock::now();
        if (deadline_ && now >= *deadline_) return drop();
        if (!socket_ || lingering_ || now - lastPing_ < context_.timing.ping) return;
        if (!heard_ && ++misses_ >= mostMisses) return drop();
        ping();
    }
    void drop() override {
        if (ended_) return;
        stream().close();
        end();
    }

private:
    /// What is needed until it is known what the client wants.
    struct HttpPhase {
        HttpPhase(ClientStream::Socket socket, const TlsContext& context)
            : tls(context), stream(std::move(socket), tls.get()) {
            parser.header_limit(longestHead);
            parser.body_limit(longestBody);
        }
        TlsContext tls;
        ClientStream stream;
        beast::flat_buffer buffer;
        http::request_parser<http::string_body> parser;
        std::string response;
    };
    using Socket = websocket::stream<ClientStream, /*deflate*/ false>;

    template <class F>
    void onThread(F action) {
        asio::post(executor_, [self = shared_from_this(), action = std::move(action)]() mutable {
            if (!self->ended_) action(*self);
        });
    }
    ClientStream& stream() { return socket_ ? socket_->next_layer() : http_->stream; }

    void readRequest() {
        http::async_read(
            http_->stream, http_->buffer, http_->parser,
            [self = shared_from_this()](ErrorCode error, std::size_t) { self->handleRequest(error); });
    }
    void handleRequest(ErrorCode error);
    bool takeProxysWord(const Request& request);
    void openSocket();
    void answerDevices(const Request& request);
    void respond(http::status status, std::string_view type, std::string_view body);

    void listen();
    void receive();
    void enqueue(std::string text);
    void writeNext();
    void ping();
    void closeSocket(CloseReason code, std::string reason);
    void startClosing();
    void linger();
    void end();

    const SocketId id_;
    ClientAddress address_;
    WebContext& context_;
    const ClientStream::executor_type executor_;
    std::unique_ptr<HttpPhase> http_;  // until there is
    std::unique_ptr<Socket> socket_;   // instead
    beast::flat_buffer input_;
    std::vector<std::string> unsent_;  // the first is being written
    MessageAllowance allowance_;
    std::optional<HostClock::time_point> deadline_;
    HostClock::time_point lastPing_ = HostClock::now();
    std::optional<websocket::close_reason> closing_;
    int misses_ = 0;
    bool heard_ = true;  // since the last ping
    bool writing_ = false;
    bool pinging_ = false;
    bool awaitsPong_ = false;
    bool closeSent_ = false;
    bool lingering_ = false;
    bool ended_ = false;
};

// HTTP

void Session::handleRequest(ErrorCode error) {
    if (error == http::error::body_limit)
        return respond(http::status::payload_too_large, "text/plain", "too long\n");
    if (error == http::error::header_limit) {
        return respond(http::status::request_header_fields_too_large, "text/plain", "too long\n");
    }
    if (error && error.category() == http::make_error_code(http::error::bad_method).category() &&
        error != http::error::end_of_stream && error != http::error::partial_message) {
        return respond(http::status::bad_request, "text/plain", "no HTTP\n");
    }
    if (error) return end();
    const Request& request = http_->parser.get();
    if (!takeProxysWord(request)) return respond(http::status::too_many_requests, "text/plain", "too many\n");
    if (websocket::is_upgrade(request)) return openSocket();
    const auto path = request.target().substr(0, request.target().find('?'));
    const bool isGet = request.method() == http::verb::get;
    if (path == "/devices") {
        if (request.method() == http::verb::post) return answerDevices(request);
        return respond(http::status::method_not_allowed, "text/plain", "POST it\n");
    }
    if (path == "/health" && isGet) return respond(http::status::ok, "application/json", context_.health());
    const auto& readers = context_.metricsReaders;
    const bool mayRead =
        address_.isLoopback() || std::find(readers.begin(), readers.end(), address_.text) != readers.end();
    if (path == "/metrics" && isGet && mayRead) {
        return respond(http::status::ok, "text/plain; version=0.0.4", context_.metrics.text());
    }
    respond(http::status::not_found, "text/plain", "not found\n");
}

bool Session::takeProxysWord(const Request& request) {
    const auto& proxies = context_.proxies;
    if (std::find(proxies.begin(), proxies.end(), address_.text) == proxies.end()) return true;
    // Each proxy adds behind what it was told, so only the last entry is by the one we know.
    const auto forwarded = request["X-Forwarded-For"];
    auto last = forwarded.substr(forwarded.rfind(',') + 1);
    while (last.starts_with(' ')) last.remove_prefix(1);
    if (auto real = ClientAddress::parse({last.data(), last.size()})) address_ = std::move(*real);
    return context_.budget.attribute(id_, address_.network);
}

void Session::answerDevices(const Request& request) {
    deadline_ = HostClock::now() + context_.timing.answer;
    context_.logic.post([self = shared_from_this(), body = request.body()] {
        self->context_.point.devices(self->address_, body, [self](std::optional<std::string> answer) {
            self->onThread([answer = std::move(answer)](Session& session) {
                if (answer) return session.respond(http::status::ok, "application/json", *answer);
                session.respond(http::status::bad_request, "text/plain", "no device list\n");
            });
        });
    });
}

void Session::respond(http::status status, std::string_view type, std::string_view body) {
    deadline_ = HostClock::now() + context_.timing.closing;
    http_->response = fmt::format(
        "HTTP/1.1 {} {}\r\nContent-Type: {}\r\nContent-Length: {}\r\nCache-Control: no-store\r\n"
        "Connection: close\r\n\r\n{}",
        static_cast<unsigned>(status), std::string(http::obsolete_reason(status)), type, body.size(), body);
    asio::async_write(http_->stream, asio::buffer(http_->response),
                      [self = shared_from_this()](ErrorCode error, std::size_t) {
                          if (error) return self->end();
                          self->http_->stream.finishSending();
                          self->linger();
                      });
}

// WebSocket

void Session::openSocket() {
    auto request = std::make_shared<Request>(http_->parser.release());
    socket_ = std::make_unique<Socket>(std::move(http_->stream));
    http_.reset();
    socket_->set_option(websocket::stream_base::decorator(
        [](websocket::response_type& response) { response.set(http::field::server, "velmora-rendezvous"); }));
    socket_->read_message_max(longestMessage);
    socket_->auto_fragment(false);
    socket_->control_callback([this](websocket::frame_type kind, beast::string_view) {
        heard_ = true;
        misses_ = 0;
        // One that was not asked for would only make work.
        if (kind != websocket::frame_type::pong || !std::exchange(awaitsPong_, false)) return;
        context_.logic.post([self = shared_from_this()] { self->context_.point.answeredProbe(self->id_); });
    });
    socket_->async_accept(*request, [self = shared_from_this(), request](ErrorCode error) {
        if (error) return self->linger();
        self->deadline_.reset();
        self->lastPing_ = HostClock::now();
        self->context_.logic.post([self] { self->context_.point.opened(self); });
        self->listen();
    });
}

void Session::listen() {
    socket_->async_read(input_, [self = shared_from_this()](ErrorCode error, std::size_t) {
        if (self->ended_) return;
        // Beast has answered a close, and what breaks the protocol with a close of its own.
        if (error) return self->linger();
        self->receive();
    });
}

void Session::receive() {
    heard_ = true;
    misses_ = 0;
    if (!closing_) {
        if (!socket_->got_text()) {
            closeSocket(CloseReason::notText, "text only");
        } else if (!allowance_.take(HostClock::now())) {
            closeSocket(CloseReason::policy, "too many messages");
        } else {
            context_.logic.post(
                [self = shared_from_this(),
                 text = std::string(static_cast<const char*>(input_.data().data()), input_.size())] {
                    self->context_.point.received(self->id_, text);
                });
        }
    }
    input_.consume(input_.size());
    input_.shrink_to_fit();
    if (!closeSent_) listen();
}

void Session::enqueue(std::string text) {
    if (closing_ || !socket_) return;
    if (unsent_.size() >= mostUnsent) return drop();
    unsent_.push_back(std::move(text));
    writeNext();
}

void Session::writeNext() {
    if (writing_) return;
    if (unsent_.empty()) return startClosing();
    writing_ = true;
    socket_->text(true);
    socket_->async_write(asio::buffer(unsent_.front()),
                         [self = shared_from_this()](ErrorCode error, std::size_t) {
                             if (self->ended_) return;
                             self->writing_ = false;
                             if (error) return self->linger();
                             self->unsent_.erase(self->unsent_.begin());
                             if (self->unsent_.empty()) self->unsent_.shrink_to_fit();
                             self->writeNext();
                         });
}

void Session::ping() {
    if (!socket_ || pinging_ || closing_ || lingering_) return;
    pinging_ = true;
    awaitsPong_ = true;
    heard_ = false;
    lastPing_ = HostClock::now();
    socket_->async_ping({}, [self = shared_from_this()](ErrorCode) { self->pinging_ = false; });
}

void Session::closeSocket(CloseReason code, std::string reason) {
    if (!socket_ || closing_ || lingering_) return;
    closing_ = websocket::close_reason(static_cast<websocket::close_code>(code), reason);
    deadline_ = HostClock::now() + context_.timing.closing;
    if (!writing_) startClosing();
}

void Session::startClosing() {
    if (!closing_ || closeSent_) return;
    closeSent_ = true;
    socket_->async_close(*closing_, [self = shared_from_this()](ErrorCode) { self->linger(); });
}

// Ending

/// Closing with input unread makes TCP tear down what the peer has not fetched yet, the reason among it. So
/// what still comes is taken and forgotten until the peer has finished too.
void Session::linger() {
    if (ended_) return;
    if (!lingering_) {
        lingering_ = true;
        deadline_ = HostClock::now() + context_.timing.closing;
    }
    if (stream().discardInput()) return end();
    stream().socket().async_wait(asio::socket_base::wait_read, [self = shared_from_this()](ErrorCode error) {
        if (error) return self->end();
        self->linger();
    });
}

void Session::end() {
    if (std::exchange(ended_, true)) return;
    stream().close();
    context_.budget.close(id_);
    context_.logic.post([self = shared_from_this()] { self->context_.point.closed(self->id_); });
    if (onEnd) onEnd();
}

}  // namespace

std::shared_ptr<WebSession> makeWebSession(SocketId id, ClientAddress from, ClientStream::Socket socket,
                                           const TlsContext& tls, WebContext& context) {
    return std::make_shared<Session>(id, std::move(from), std::move(socket), tls, context);
}

}  // namespace velmora
