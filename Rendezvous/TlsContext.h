#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "VelmoraKit/Core/Result.h"

namespace velmora {

using TlsContext = std::shared_ptr<SSL_CTX>;

/// For servers, TLS 1.2 and newer, with the certificate (its chain behind it) and key of these PEM files.
Result<TlsContext> loadTlsContext(const std::string& certificateFile, const std::string& keyFile);

/// OpenSSL's words for what went wrong last on this thread; its list is empty then.
std::string lastTlsError();

}  // namespace velmora
