#pragma once

#include <openssl/ssl.h>

#include <array>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/compose.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/system/error_code.hpp>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>

namespace velmora {

/// A TCP connection, under TLS or not, which is decided when it is made: so that all that stands above it
/// is compiled once. OpenSSL works on the socket itself; Asio's own TLS stream keeps 70 KB of buffers for
/// each connection, and nearly all of ours are asleep.
///
/// An asynchronous stream as Asio and Beast understand it. One read and one write may be under way at a time.
class ClientStream {
public:
    using Socket =
        boost::asio::basic_stream_socket<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;
    using executor_type = Socket::executor_type;
    using ErrorCode = boost::system::error_code;

    /// Without `tls` everything is in the clear.
    ClientStream(Socket socket, SSL_CTX* tls);

    executor_type get_executor() { return socket_.get_executor(); }
    Socket& socket() { return socket_; }

    /// `handler(ErrorCode)`; succeeds at once without TLS.
    template <class Handler>
    void async_handshake(Handler&& handler) {
        start<void(ErrorCode, std::size_t)>([](ClientStream& stream) { return stream.tryHandshake(); },
                                            [handler = std::forward<Handler>(handler)](
                                                ErrorCode error, std::size_t) mutable { handler(error); });
    }
    template <class Buffers, class Handler>
    auto async_read_some(const Buffers& buffers, Handler&& handler) {
        return start<void(ErrorCode, std::size_t)>(
            [buffers](ClientStream& stream) {
                return stream.tryRead(firstOf<boost::asio::mutable_buffer>(buffers));
            },
            std::forward<Handler>(handler));
    }
    template <class Buffers, class Handler>
    auto async_write_some(const Buffers& buffers, Handler&& handler) {
        return start<void(ErrorCode, std::size_t)>(
            [buffers](ClientStream& stream) {
                // A frame's header and its payload go into one packet, and one TLS record.
                std::array<unsigned char, 2048> gathered;
                const auto first = firstOf<boost::asio::const_buffer>(buffers);
                if (first.size() >= gathered.size()) return stream.tryWrite(first);
                const std::size_t size = boost::asio::buffer_copy(boost::asio::buffer(gathered), buffers);
                return stream.tryWrite(boost::asio::const_buffer(gathered.data(), size));
            },
            std::forward<Handler>(handler));
    }

    /// Says that nothing more will be sent.
    void finishSending();
    /// Reads and forgets what has come. True at the end of what the peer sends.
    bool discardInput();
    /// At once; what is under way fails.
    void close();

private:
    /// What one try came to: bytes or an error, or what to wait for before the next.
    struct Step {
        ErrorCode error;
        std::size_t bytes = 0;
        std::optional<boost::asio::socket_base::wait_type> wait;
    };
    struct FreeTls {
        void operator()(SSL* tls) const { SSL_free(tls); }
    };

    template <class Buffer, class Buffers>
    static Buffer firstOf(const Buffers& buffers) {
        const auto end = boost::asio::buffer_sequence_end(buffers);
        for (auto at = boost::asio::buffer_sequence_begin(buffers); at != end; ++at) {
            const Buffer buffer = *at;
            if (buffer.size() > 0) return buffer;
        }
        return {};
    }

    template <class Signature, class Try, class Handler>
    auto start(Try attempt, Handler&& handler) {
        auto step = [this, attempt = std::move(attempt), done = std::optional<Step>(), first = true](
                        auto& self, ErrorCode error = {}, std::size_t = 0) mutable {
            if (done) return self.complete(done->error, done->bytes);
            if (error) return self.complete(error, 0);
            const Step outcome = attempt(*this);
            if (outcome.wait) {
                first = false;
                return socket_.async_wait(*outcome.wait, std::move(self));
            }
            if (!first) return self.complete(outcome.error, outcome.bytes);
            // A handler never runs within the call that started it.
            done = outcome;
            boost::asio::post(get_executor(), std::move(self));
        };
        return boost::asio::async_compose<Handler, Signature>(std::move(step), handler, socket_);
    }

    Step tryHandshake();
    Step tryRead(boost::asio::mutable_buffer into);
    Step tryWrite(boost::asio::const_buffer from);
    Step stepOfTls(int result) const;
    static Step stepOfSocket(std::ptrdiff_t result, boost::asio::socket_base::wait_type wait);

    Socket socket_;
    std::unique_ptr<SSL, FreeTls> tls_;
};

// How Beast ends a connection of a type that it does not know.
void teardown(boost::beast::role_type, ClientStream& stream, boost::system::error_code& error);
template <class Handler>
void async_teardown(boost::beast::role_type, ClientStream& stream, Handler&& handler) {
    stream.finishSending();
    boost::asio::post(stream.get_executor(), [handler = std::forward<Handler>(handler)]() mutable {
        handler(boost::system::error_code());
    });
}
inline void beast_close_socket(ClientStream& stream) {
    stream.close();
}

}  // namespace velmora
