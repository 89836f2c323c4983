#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/FolderArchiver.h"
#include "Platform/Pasteboard.h"
#include "Shared/ClipboardPacking.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Wire/ClipboardContent.h"

namespace velmora {

/// Keeps this machine's pasteboard and a peer's in step during a session: sends what is copied here, puts
/// what comes on the pasteboard, and never sends back what came. One stands at each end of a connection, held
/// by the session that owns it. Lives on the main queue. Whatever fails is a log line, and the next copy
/// another try.
class ClipboardSync {
public:
    using PackError = ClipboardPacking::PackError;
    using Send = std::function<void(const ClipboardContent&)>;

    struct Parameters {
        /// Between two looks at the pasteboard: some programs change it again and again.
        HostClock::duration pause = std::chrono::milliseconds(500);
        /// More is not even read to be refused with its size.
        std::size_t mostRead = 64 << 20;
    };
    /// All outlive this and what it leaves on the queues.
    struct Services {
        Pasteboard& pasteboard;
        FolderArchiver& archiver;
        Queue& main;
        Queue& worker;                // files are packed and saved here, one after the other
        std::filesystem::path inbox;  // where received files live
    };

    /// `label` is the peer's name in the lines for `log`.
    ClipboardSync(std::string label, std::function<void(const std::string&)> log, Services services)
        : ClipboardSync(std::move(label), std::move(log), std::move(services), Parameters()) {}
    ClipboardSync(std::string label, std::function<void(const std::string&)> log, Services services,
                  Parameters parameters);

    /// From now on what is copied goes to `send`; what lies on the pasteboard already does not.
    void start(Send send);
    /// Nothing is sent any more. What comes is still put on the pasteboard.
    void stop();

    /// Puts it on the pasteboard, in place of everything there; files once they are saved.
    void receive(ClipboardContent content);
    /// For a connection's callback: takes payloads of `clipboard` messages on any thread, drops those that
    /// are malformed or come after our end, and has the others received.
    std::function<void(const Bytes& payload)> receiver();

private:
    using Content = std::shared_ptr<const ClipboardContent>;
    /// Files that came and are not yet saved; only the newest are. Shared with the worker.
    struct Inbound;

    void pasteboardChanged();
    void check();
    void look(std::vector<std::string> types);
    void readPicture(std::vector<std::string> types);
    void readText(const std::vector<std::string>& types);
    void take(ClipboardContent::Kind kind, Result<Bytes, Pasteboard::Lack> outcome);
    void refuse(std::size_t size);
    void pack(std::vector<std::filesystem::path> files);
    void deliver(Content content, const std::string& description);
    void receiveFiles(Content content);
    void settle(Content content, const std::string& description);
    /// `f`, unless this has been stopped or the pasteboard looked at again meanwhile.
    template <class F>
    auto ifCurrent(F f);

    const std::string label_;
    const std::function<void(const std::string&)> log_;
    const Services services_;
    const Parameters parameters_;
    const std::shared_ptr<const ClipboardPacking> packing_;
    const std::shared_ptr<Inbound> inbound_;

    TimerToken timer_;
    std::int64_t lastChangeCount_ = 0;  // as last seen, or last written by us
    Send send_;
    Content lastSent_;  // or last received: the echo guard
    std::optional<HostClock::time_point> lastCheck_;
    Pasteboard::Observation observation_;
    Liveness running_;  // until `stop`
    Liveness alive_;    // last
};

}  // namespace velmora
