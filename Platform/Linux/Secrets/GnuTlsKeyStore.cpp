#include "Platform/Linux/Secrets/GnuTlsKeyStore.h"

#include <gnutls/abstract.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <cctype>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <type_traits>
#include <utility>

#include "Platform/Linux/System/PrivateFile.h"

namespace velmora {
namespace {

constexpr std::size_t coordinateSize = 32;
constexpr std::size_t maxCertificateSize = 65536;

template <class Handle, auto deinit>
struct Deinit {
    using pointer = Handle;
    void operator()(Handle handle) const { deinit(handle); }
};
using X509Key =
    std::unique_ptr<gnutls_x509_privkey_int, Deinit<gnutls_x509_privkey_t, gnutls_x509_privkey_deinit>>;
using SigningKey = std::unique_ptr<gnutls_privkey_st, Deinit<gnutls_privkey_t, gnutls_privkey_deinit>>;
using Certificate = std::unique_ptr<gnutls_x509_crt_int, Deinit<gnutls_x509_crt_t, gnutls_x509_crt_deinit>>;

/// What GnuTLS hands out, freed at the end.
struct Datum {
    gnutls_datum_t datum{nullptr, 0};
    Datum() = default;
    Datum(const Datum&) = delete;
    Datum& operator=(const Datum&) = delete;
    ~Datum() { gnutls_free(datum.data); }
    ByteView view() const { return {datum.data, datum.size}; }
    Bytes bytes() const { return {datum.data, datum.data + datum.size}; }
};

gnutls_datum_t datumOf(ByteView bytes) {
    return {const_cast<unsigned char*>(bytes.data()), static_cast<unsigned>(bytes.size())};
}

Failure failureOf(int status) {
    return {gnutls_strerror(status), status};
}

X509Key newKey() {
    gnutls_x509_privkey_t key = nullptr;
    gnutls_x509_privkey_init(&key);
    return X509Key(key);
}

X509Key keyOfPem(ByteView pem) {
    X509Key key = newKey();
    const auto datum = datumOf(pem);
    if (gnutls_x509_privkey_import(key.get(), &datum, GNUTLS_X509_FMT_PEM) < 0) return nullptr;
    return key;
}

/// X9.63: coordinates have a fixed size; GnuTLS may add a leading zero or leave leading zeros out.
Result<Bytes> pointOf(gnutls_ecc_curve_t curve, const Datum& x, const Datum& y) {
    if (curve != GNUTLS_ECC_CURVE_SECP256R1) return Failure{"not a P-256 key"};
    Bytes point{4};
    for (ByteView coordinate : {x.view(), y.view()}) {
        while (coordinate.size() > coordinateSize && coordinate.front() == 0)
            coordinate = coordinate.subspan(1);
        if (coordinate.size() > coordinateSize) return Failure{"not a P-256 key"};
        point.insert(point.end(), coordinateSize - coordinate.size(), 0);
        point.insert(point.end(), coordinate.begin(), coordinate.end());
    }
    return point;
}

SecretName nameOfKey(std::string_view label) {
    return {"com.velmora.host", std::string(label)};
}

}  // namespace

GnuTlsKeyStore::GnuTlsKeyStore(SecretStore& secrets, std::filesystem::path folder)
    : secrets_(secrets), folder_(std::move(folder)) {}

std::filesystem::path GnuTlsKeyStore::defaultFolder() {
    return dataFolder();
}

/// "Velmora Host" is kept in velmora-host.der.
std::filesystem::path GnuTlsKeyStore::certificateFile(std::string_view label) const {
    std::string name;
    for (const char c : label) {
        const auto letter = static_cast<unsigned char>(c);
        name += std::isalnum(letter) ? static_cast<char>(std::tolower(letter)) : '-';
    }
    return folder_ / (name + ".der");
}

Result<Bytes, KeyStore::Lack> GnuTlsKeyStore::findCertificate(std::string_view label) {
    auto content = readPrivateFile(certificateFile(label), maxCertificateSize);
    if (!content) return Lack::unavailable;
    if (!*content) return Lack::absent;
    return **std::move(content);
}

Status GnuTlsKeyStore::storeCertificate(std::string_view label, ByteView der) {
    if (auto made = makePrivateFolder(folder_); !made) return made;
    return replacePrivateFile(certificateFile(label), der);
}

Status GnuTlsKeyStore::deleteCertificate(std::string_view label) {
    std::error_code error;
    std::filesystem::remove(certificateFile(label), error);
    if (error) return Failure{error.message(), error.value()};
    return Done{};
}

Status GnuTlsKeyStore::createKey(std::string_view label) {
    const X509Key key = newKey();
    int status = gnutls_x509_privkey_generate(key.get(), GNUTLS_PK_ECDSA,
                                              GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0);
    if (status < 0) return failureOf(status);
    Datum pem;
    status = gnutls_x509_privkey_export2_pkcs8(key.get(), GNUTLS_X509_FMT_PEM, nullptr, GNUTLS_PKCS_PLAIN,
                                               &pem.datum);
    if (status < 0) return failureOf(status);
    return secrets_.save(nameOfKey(label), pem.view(), label);
}

Result<Bytes, KeyStore::Lack> GnuTlsKeyStore::publicKey(std::string_view label) {
    const auto pem = privateKey(label);
    if (!pem) return pem.error();
    const X509Key key = keyOfPem(*pem);
    if (!key) return Lack::absent;
    gnutls_ecc_curve_t curve{};
    Datum x, y, secret;
    if (gnutls_x509_privkey_export_ecc_raw(key.get(), &curve, &x.datum, &y.datum, &secret.datum) < 0) {
        return Lack::absent;
    }
    auto point = pointOf(curve, x, y);
    if (!point) return Lack::absent;
    return *std::move(point);
}

Result<Bytes, KeyStore::Lack> GnuTlsKeyStore::privateKey(std::string_view label) {
    auto pem = secrets_.read(nameOfKey(label));
    if (pem) return *std::move(pem);
    switch (pem.error()) {
        case SecretStore::Lack::absent:
            return Lack::absent;
        case SecretStore::Lack::unavailable:
            break;
    }
    return Lack::unavailable;
}

Status GnuTlsKeyStore::deleteKey(std::string_view label) {
    return secrets_.remove(nameOfKey(label));
}

Result<Bytes> GnuTlsKeyStore::sign(std::string_view label, ByteView message) {
    const auto pem = privateKey(label);
    if (!pem) return Failure{"no key"};
    X509Key key = keyOfPem(*pem);
    if (!key) return Failure{"not a key"};
    gnutls_privkey_t handle = nullptr;
    gnutls_privkey_init(&handle);
    const SigningKey signing(handle);
    int status = gnutls_privkey_import_x509(signing.get(), key.get(), GNUTLS_PRIVKEY_IMPORT_COPY);
    if (status < 0) return failureOf(status);
    Datum signature;
    const auto datum = datumOf(message);
    status = gnutls_privkey_sign_data2(signing.get(), GNUTLS_SIGN_ECDSA_SHA256, 0, &datum, &signature.datum);
    if (status < 0) return failureOf(status);
    return signature.bytes();
}

Result<Bytes> GnuTlsKeyStore::publicKeyOfCertificate(ByteView der) {
    gnutls_x509_crt_t handle = nullptr;
    gnutls_x509_crt_init(&handle);
    const Certificate certificate(handle);
    const auto datum = datumOf(der);
    int status = gnutls_x509_crt_import(certificate.get(), &datum, GNUTLS_X509_FMT_DER);
    if (status < 0) return failureOf(status);
    gnutls_ecc_curve_t curve{};
    Datum x, y;
    status = gnutls_x509_crt_get_pk_ecc_raw(certificate.get(), &curve, &x.datum, &y.datum);
    if (status < 0) return failureOf(status);
    return pointOf(curve, x, y);
}

std::array<std::uint8_t, 32> GnuTlsKeyStore::sha256(ByteView data) {
    std::array<std::uint8_t, 32> hash{};
    gnutls_hash_fast(GNUTLS_DIG_SHA256, data.data(), data.size(), hash.data());
    return hash;
}

Bytes GnuTlsKeyStore::randomBytes(std::size_t count) {
    Bytes bytes(count);
    // Without randomness there is no security at all: better no program than a guessable key.
    if (gnutls_rnd(GNUTLS_RND_KEY, bytes.data(), count) < 0) std::abort();
    return bytes;
}

}  // namespace velmora
