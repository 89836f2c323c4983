#include "Rendezvous/ClientStream.h"

#include <openssl/err.h>
#include <sys/socket.h>

#include <array>
#include <boost/asio/error.hpp>
#include <cerrno>

namespace velmora {

using boost::asio::socket_base;

ClientStream::ClientStream(Socket socket, SSL_CTX* tls) : socket_(std::move(socket)) {
    ErrorCode ignored;
    socket_.native_non_blocking(true, ignored);
    socket_.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    if (!tls) return;
    tls_.reset(SSL_new(tls));
    SSL_set_fd(tls_.get(), socket_.native_handle());
    SSL_set_accept_state(tls_.get());
}

ClientStream::Step ClientStream::stepOfSocket(std::ptrdiff_t result, socket_base::wait_type wait) {
    if (result >= 0) return {.error = {}, .bytes = static_cast<std::size_t>(result)};
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
        return {.error = {}, .bytes = 0, .wait = wait};
    return {.error = ErrorCode(errno, boost::system::system_category())};
}

ClientStream::Step ClientStream::stepOfTls(int result) const {
    if (result > 0) return {.error = {}, .bytes = static_cast<std::size_t>(result)};
    const int number = errno;
    switch (SSL_get_error(tls_.get(), result)) {
        case SSL_ERROR_WANT_READ:
            return {.error = {}, .bytes = 0, .wait = socket_base::wait_read};
        case SSL_ERROR_WANT_WRITE:
            return {.error = {}, .bytes = 0, .wait = socket_base::wait_write};
        case SSL_ERROR_ZERO_RETURN:
            return {.error = boost::asio::error::eof};
        case SSL_ERROR_SYSCALL:
            ERR_clear_error();
            if (number == 0) return {.error = boost::asio::error::eof};
            return {.error = ErrorCode(number, boost::system::system_category())};
        default:
            // Left in the list it would be taken for the next connection's.
            ERR_clear_error();
            return {.error = ErrorCode(EPROTO, boost::system::system_category())};
    }
}

ClientStream::Step ClientStream::tryHandshake() {
    if (!tls_) return {};
    errno = 0;
    return stepOfTls(SSL_do_handshake(tls_.get()));
}

ClientStream::Step ClientStream::tryRead(boost::asio::mutable_buffer into) {
    if (into.size() == 0) return {};
    errno = 0;
    if (tls_) return stepOfTls(SSL_read(tls_.get(), into.data(), static_cast<int>(into.size())));
    const auto got = ::recv(socket_.native_handle(), into.data(), into.size(), 0);
    if (got == 0) return {.error = boost::asio::error::eof};
    return stepOfSocket(got, socket_base::wait_read);
}

ClientStream::Step ClientStream::tryWrite(boost::asio::const_buffer from) {
    if (from.size() == 0) return {};
    errno = 0;
    if (tls_) return stepOfTls(SSL_write(tls_.get(), from.data(), static_cast<int>(from.size())));
    const auto sent = ::send(socket_.native_handle(), from.data(), from.size(), MSG_NOSIGNAL);
    return stepOfSocket(sent, socket_base::wait_write);
}

void ClientStream::finishSending() {
    if (tls_ && SSL_is_init_finished(tls_.get())) {
        SSL_shutdown(tls_.get());
        ERR_clear_error();
    }
    ErrorCode ignored;
    socket_.shutdown(socket_base::shutdown_send, ignored);
}

bool ClientStream::discardInput() {
    std::array<char, 16384> bin{};
    for (int turn = 0; turn < 16; ++turn) {
        const auto got = ::recv(socket_.native_handle(), bin.data(), bin.size(), 0);
        if (got > 0) continue;
        return got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }
    return false;
}

void ClientStream::close() {
    ErrorCode ignored;
    socket_.close(ignored);
}

void teardown(boost::beast::role_type, ClientStream& stream, boost::system::error_code& error) {
    stream.finishSending();
    error = {};
}

}  // namespace velmora
