#pragma once

#include <string>
#include <string_view>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Names a secret: the service it belongs to and the account within it.
struct SecretName {
    std::string service;
    std::string account;
    auto operator<=>(const SecretName&) const = default;
};

/// The user's passwords and keys, kept by the system. Any thread. A call may block, for at most the
/// implementation's time limit (seconds): keep it off the main queue.
class SecretStore {
public:
    /// Why a read gives no value. Only `absent` says that the item does not exist; after `unavailable`
    /// (locked, no answer in time) it may well exist, and nothing may be made in its place.
    enum class Lack { absent, unavailable };
    using Reading = Result<Bytes, Lack>;

    virtual ~SecretStore() = default;

    virtual Reading read(const SecretName& name) = 0;
    /// Makes or replaces the item. `label` is what people see in the system's own lists; an item that exists
    /// keeps the one it has. A failure leaves the old value in place.
    virtual Status save(const SecretName& name, ByteView value, std::string_view label) = 0;
    /// Removing what does not exist succeeds.
    virtual Status remove(const SecretName& name) = 0;
};

}  // namespace velmora
