#include "Rendezvous/TlsContext.h"

#include <fmt/format.h>
#include <openssl/err.h>

#include <array>

namespace velmora {

std::string lastTlsError() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return "unknown";
    std::array<char, 256> text{};
    ERR_error_string_n(code, text.data(), text.size());
    return text.data();
}

Result<TlsContext> loadTlsContext(const std::string& certificateFile, const std::string& keyFile) {
    ERR_clear_error();
    const TlsContext context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    if (!context) return Failure{lastTlsError()};
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    // A socket that waits keeps no record buffers, which are most of what a connection costs.
    SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                        SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    // Nobody comes back within minutes; the tickets would cost each connection time, bytes and memory.
    SSL_CTX_set_num_tickets(context.get(), 0);
    if (SSL_CTX_use_certificate_chain_file(context.get(), certificateFile.c_str()) != 1) {
        return Failure{fmt::format("the certificate {} can't be used: {}", certificateFile, lastTlsError())};
    }
    if (SSL_CTX_use_PrivateKey_file(context.get(), keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        return Failure{fmt::format("the key {} can't be used: {}", keyFile, lastTlsError())};
    }
    return context;
}

}  // namespace velmora
