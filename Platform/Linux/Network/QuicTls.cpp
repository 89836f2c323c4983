#include "Platform/Linux/Network/QuicTls.h"

#include <fmt/format.h>
#include <gnutls/crypto.h>
#include <gnutls/x509.h>
#include <ngtcp2/ngtcp2_crypto.h>
#include <ngtcp2/ngtcp2_crypto_gnutls.h>

#include <array>
#include <string>

namespace velmora {

namespace {

// TLS 1.3 only. AES first: it costs a third of ChaCha20 where the processor knows AES, as nearly all do.
constexpr const char* priorities =
    "%DISABLE_TLS13_COMPAT_MODE:NORMAL:-VERS-ALL:+VERS-TLS1.3:-CIPHER-ALL:+AES-128-GCM:+AES-256-GCM:"
    "+CHACHA20-POLY1305:-GROUP-ALL:+GROUP-X25519:+GROUP-SECP256R1";

gnutls_datum_t datumOf(ByteView bytes) {
    return {const_cast<unsigned char*>(bytes.data()), static_cast<unsigned>(bytes.size())};
}

/// 64 uppercase hexadecimal digits of SHA-256, the form in which fingerprints are stored and compared.
std::optional<std::string> fingerprintOf(const gnutls_datum_t& der) {
    std::array<unsigned char, 32> hash{};
    if (gnutls_hash_fast(GNUTLS_DIG_SHA256, der.data, der.size, hash.data()) != 0) return std::nullopt;
    std::string text;
    for (const unsigned char byte : hash) text += fmt::format("{:02X}", byte);
    return text;
}

struct Certificate {
    gnutls_x509_crt_t handle = nullptr;
    ~Certificate() {
        if (handle) gnutls_x509_crt_deinit(handle);
    }
};
struct PrivateKey {
    gnutls_x509_privkey_t handle = nullptr;
    ~PrivateKey() {
        if (handle) gnutls_x509_privkey_deinit(handle);
    }
};

Failure failure(std::string_view what, int status) {
    return {fmt::format("{}: {}", what, gnutls_strerror(status)), 0};
}

}  // namespace

QuicTls::QuicTls(Role role, std::string_view alpn) : role_(role), alpn_(alpn) {}

QuicTls::~QuicTls() {
    if (credentials_) gnutls_certificate_free_credentials(credentials_);
}

Result<std::shared_ptr<const QuicTls>> QuicTls::forServer(const TransportIdentity& identity,
                                                          std::string_view alpn) {
    std::shared_ptr<QuicTls> tls(new QuicTls(Role::server, alpn));
    Certificate certificate;
    PrivateKey key;
    const gnutls_datum_t der = datumOf(identity.certificate);
    const gnutls_datum_t pem = datumOf(identity.privateKey);
    if (const int status = gnutls_x509_crt_init(&certificate.handle); status < 0)
        return failure("certificate", status);
    if (const int status = gnutls_x509_crt_import(certificate.handle, &der, GNUTLS_X509_FMT_DER); status < 0)
        return failure("certificate", status);
    if (const int status = gnutls_x509_privkey_init(&key.handle); status < 0) return failure("key", status);
    if (const int status =
            gnutls_x509_privkey_import2(key.handle, &pem, GNUTLS_X509_FMT_PEM, nullptr, GNUTLS_PKCS_PLAIN);
        status < 0)
        return failure("key", status);
    if (const int status = gnutls_certificate_allocate_credentials(&tls->credentials_); status < 0)
        return failure("credentials", status);
    if (const int status =
            gnutls_certificate_set_x509_key(tls->credentials_, &certificate.handle, 1, key.handle);
        status < 0)
        return failure("certificate and key", status);
    return std::shared_ptr<const QuicTls>(std::move(tls));
}

Result<std::shared_ptr<const QuicTls>> QuicTls::forClient(std::optional<QUICSetup::Verification> verification,
                                                          std::string_view alpn) {
    std::shared_ptr<QuicTls> tls(new QuicTls(Role::client, alpn));
    tls->verification_ = std::move(verification);
    if (const int status = gnutls_certificate_allocate_credentials(&tls->credentials_); status < 0)
        return failure("credentials", status);
    gnutls_certificate_set_verify_function(tls->credentials_, &QuicTls::verifyPeer);
    return std::shared_ptr<const QuicTls>(std::move(tls));
}

QuicTls::Session QuicTls::makeSession(ngtcp2_crypto_conn_ref& connection) const {
    gnutls_session_t raw = nullptr;
    const unsigned flags = role_ == Role::server ? GNUTLS_SERVER | GNUTLS_NO_AUTO_SEND_TICKET : GNUTLS_CLIENT;
    if (gnutls_init(&raw, flags) < 0) return nullptr;
    Session session(raw);
    if (gnutls_priority_set_direct(raw, priorities, nullptr) < 0) return nullptr;
    const int wired = role_ == Role::server ? ngtcp2_crypto_gnutls_configure_server_session(raw)
                                            : ngtcp2_crypto_gnutls_configure_client_session(raw);
    if (wired != 0) return nullptr;
    gnutls_session_set_ptr(raw, &connection);  // the QUIC library's glue takes it for its own type
    gnutls_db_set_ptr(
        raw, const_cast<QuicTls*>(this));  // unused by TLS 1.3 without tickets: verifyPeer's way back
    if (gnutls_credentials_set(raw, GNUTLS_CRD_CERTIFICATE, credentials_) < 0) return nullptr;
    const gnutls_datum_t protocol = datumOf(viewOf(alpn_));
    if (!alpn_.empty() && gnutls_alpn_set_protocols(raw, &protocol, 1, GNUTLS_ALPN_MANDATORY) < 0)
        return nullptr;
    return session;
}

bool QuicTls::agreedOnProtocol(gnutls_session_t session) const {
    if (alpn_.empty()) return true;
    gnutls_datum_t chosen{};
    if (gnutls_alpn_get_selected_protocol(session, &chosen) != 0) return false;
    return textOf({chosen.data, chosen.size}) == alpn_;
}

/// The leaf is all that is looked at: neither chain nor dates nor name mean anything here.
int QuicTls::verifyPeer(gnutls_session_t session) {
    const auto* self = static_cast<const QuicTls*>(gnutls_db_get_ptr(session));
    if (!self->verification_) return -1;
    if (gnutls_certificate_type_get2(session, GNUTLS_CTYPE_SERVER) != GNUTLS_CRT_X509) return -1;
    unsigned count = 0;
    const gnutls_datum_t* chain = gnutls_certificate_get_peers(session, &count);
    if (!chain || count == 0) return -1;
    const auto fingerprint = fingerprintOf(chain[0]);
    return fingerprint && QUICSetup::accepts(*self->verification_, *fingerprint) ? 0 : -1;
}

}  // namespace velmora
