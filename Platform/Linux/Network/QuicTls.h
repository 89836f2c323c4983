#pragma once

#include <gnutls/gnutls.h>

#include <memory>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Transport/QUICSetup.h"

struct ngtcp2_crypto_conn_ref;

namespace velmora {

/// What one side of TLS 1.3 brings along: the host its certificate and key, the viewer its way of deciding
/// about the certificate it is shown. Immutable, shared by all connections of a listener or of an attempt.
class QuicTls {
public:
    enum class Role { client, server };

    /// Fails if certificate or key cannot be read or do not belong together.
    static Result<std::shared_ptr<const QuicTls>> forServer(const TransportIdentity& identity,
                                                            std::string_view alpn = QUICSetup::alpn);
    /// With no verification every certificate is refused: there is no authority to ask. An empty `alpn`
    /// offers no protocol, as some stranger might.
    static Result<std::shared_ptr<const QuicTls>> forClient(
        std::optional<QUICSetup::Verification> verification, std::string_view alpn = QUICSetup::alpn);
    ~QuicTls();
    QuicTls(const QuicTls&) = delete;
    QuicTls& operator=(const QuicTls&) = delete;

    struct SessionDeleter {
        void operator()(gnutls_session_t session) const { gnutls_deinit(session); }
    };
    using Session = std::unique_ptr<gnutls_session_int, SessionDeleter>;

    /// A TLS session wired to the QUIC library through `connection`, which must outlive it. Null if the
    /// library refuses.
    Session makeSession(ngtcp2_crypto_conn_ref& connection) const;

    /// Whether the handshake agreed on our protocol. Asked by hand: the library's mandatory mode still lets
    /// a client through that offers no protocol at all.
    bool agreedOnProtocol(gnutls_session_t session) const;

    Role role() const { return role_; }

private:
    QuicTls(Role role, std::string_view alpn);
    static int verifyPeer(gnutls_session_t session);

    const Role role_;
    const std::string alpn_;
    std::optional<QUICSetup::Verification> verification_;
    gnutls_certificate_credentials_t credentials_ = nullptr;
};

}  // namespace velmora
