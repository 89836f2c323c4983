#pragma once

#include "Platform/SecretStore.h"

namespace velmora {

/// A running keyring, as far as one is running: what LinuxSecretStore puts its items into. Any thread; each
/// call ends within a time limit.
class Keyring {
public:
    enum class Trouble {
        absent,       // unlocked, and there is no such item
        unavailable,  // locked, or no answer in time
        missing,      // no service is there, or one that keeps nothing
    };
    struct Problem {
        Trouble trouble;
        std::string text;
    };

    virtual ~Keyring() = default;

    virtual Result<Bytes, Problem> read(const SecretName& name) = 0;
    virtual Result<Done, Problem> save(const SecretName& name, ByteView value, std::string_view label) = 0;
    virtual Result<Done, Problem> remove(const SecretName& name) = 0;
};

}  // namespace velmora
