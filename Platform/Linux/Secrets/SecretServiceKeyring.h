#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "Platform/Linux/Secrets/Keyring.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {

/// The keyring behind the Secret Service of D-Bus (GNOME Keyring, KWallet, KeePassXC), spoken
/// to through GDBus: libsecret cannot tell an absent item from one in a locked keyring, asks the person when
/// merely reading, and shares a connection that outlives its bus.
/// All of it happens on a thread of its own with a GLib context of its own: the default context is the main
/// loop's. A caller waits for at most the limit; the call is cancelled then.
///
/// A locked keyring is asked once to unlock itself, which shows the system's prompt where there is a
/// display; meanwhile, and when the person declines, items are unavailable.
class SecretServiceKeyring final : public Keyring {
public:
    explicit SecretServiceKeyring(std::chrono::milliseconds limit = std::chrono::seconds(5));
    ~SecretServiceKeyring() override;

    Result<Bytes, Problem> read(const SecretName& name) override;
    Result<Done, Problem> save(const SecretName& name, ByteView value, std::string_view label) override;
    Result<Done, Problem> remove(const SecretName& name) override;

private:
    class Session;  // lives on the thread

    template <class T>
    Result<T, Problem> ask(std::function<Result<T, Problem>(Session&)> question);

    const std::chrono::milliseconds limit_;
    std::shared_ptr<Session> session_;
    ThreadQueue queue_{"velmora.keyring"};  // last: ends before the session does
};

}  // namespace velmora
