#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Agent/DeviceDirectory.h"
#include "Agent/RemoteMac.h"
#include "Platform/JpegEncoder.h"
#include "VelmoraKit/Core/Queue.h"
#include "Viewer/Session/ViewerConnection.h"

namespace velmora {

/// A viewer without a window: finds the Mac that an agent names, connects when a tool first needs its screen
/// and again whenever it is needed, and keeps the newest picture. Streaming begins with the first decoded
/// picture, so no tool ever runs before there is one to see. One per process; lives on the main queue.
class AgentSession final : public RemoteMac {
public:
    enum class State {
        idle,                // no attempt runs
        connecting,          // looking for the Mac, or for a path to it
        waitingForApproval,  // of somebody at the Mac
        streaming,
        ended,  // the last attempt failed, or the connection broke
    };
    /// All outlive us, and `jpeg` every block on `worker`.
    struct Services {
        ViewerConnection::Services viewer;
        DeviceDirectory& devices;
        JpegEncoder& jpeg;
        Queue& main;
        Queue& client;  // of the connections
        Queue& worker;  // makes screenshots
    };
    struct Settings {
        std::optional<std::string> deviceName;
        std::optional<DisplayRequest> display;  // a virtual display; else the host's own is shown
        std::string clientName;                 // for the host to show
    };
    struct Parameters {
        std::chrono::milliseconds lookUpLimit{3000};    // for a Mac named just now to be seen on the network
        std::chrono::milliseconds lookUpInterval{250};  // between two looks
        std::chrono::milliseconds changeInterval{100};  // between two looks at what has changed
    };

    AgentSession(Settings settings, Services services, const Parameters& parameters);
    AgentSession(Settings settings, Services services)
        : AgentSession(std::move(settings), std::move(services), Parameters{}) {}

    State state() const { return state_; }

    std::vector<std::string> deviceLines() const override;
    std::optional<std::string> hostIDOf(const std::string& name) const override;
    std::string statusText() const override;
    const std::optional<std::string>& deviceName() const override { return deviceName_; }
    void select(const Selection& selection) override;
    void ensureStreaming(HostClock::duration limit, UniqueFunction<void(const Status&)> done) override;
    bool hasConnection() const override { return connection_ != nullptr; }
    void disconnect() override;

    PixelSize shotSize() const override;
    void takeShot(const std::optional<ShotGeometry::Region>& region,
                  UniqueFunction<void(std::optional<Shot>)> done) override;
    void waitForChange(const Rest& rest, UniqueFunction<void(bool)> done) override;

    void send(const std::vector<InputEvent>& events) override;
    void setRemoteClipboard(const std::string& text) override;
    void selectDisplay(std::optional<std::uint32_t> id) override;
    const std::optional<ClipboardContent>& remoteClipboard() const override { return remoteClipboard_; }
    const std::optional<DisplayList>& displayList() const override { return displayList_; }

private:
    using Device = DeviceDirectory::Device;
    class Inbox;
    struct Watch;
    struct Waiter {
        UniqueFunction<void(const Status&)> done;
        TimerToken limit;
    };
    /// Of a Mac that is about to be saved.
    struct Credentials {
        std::string hostID, password;
    };

    void lookUp(HostClock::time_point deadline);
    void addAndConnect(const Credentials& credentials);
    std::optional<Device> candidate() const;
    void connect(const Device& device);
    void open(const Device& device, const std::optional<std::string>& password);
    void listenTo(ViewerConnection& connection);
    void pictureArrived();
    void handleEnd(const ConnectionError& error);
    void end(std::string reason, const std::string& forTheAgent);
    void fail(const std::string& description);
    void answerWaiters(const Status& status);
    void moveTo(State next, std::string_view reason);
    void dropConnection();
    void check(const std::shared_ptr<Watch>& watch);
    std::uint64_t changeCount() const;
    std::string knownNames() const;

    const Services services_;
    Queue& main_;
    const Parameters parameters_;
    const std::optional<DisplayRequest> display_;
    const std::string clientName_;

    std::optional<std::string> deviceName_;
    State state_ = State::idle;
    std::string endReason_;                   // of State::ended
    std::optional<Credentials> credentials_;  // used by the next look-up
    std::optional<std::string> password_;  // of a Mac with no Host ID to save it under, while it is selected
    std::vector<Waiter> waiters_;

    std::shared_ptr<Inbox> inbox_;  // of `connection_`, which writes into it
    std::unique_ptr<ViewerConnection> connection_;
    std::uint64_t pastChanges_ = 0;  // of connections that have gone

    std::optional<ClipboardContent> remoteClipboard_;
    std::optional<DisplayList> displayList_;
    bool textFieldFocused_ = false;

    TimerToken lookUpTimer_;
    Liveness attempt_;  // renewed when the connection or the look-up for one ends
    Liveness liveness_;
};

}  // namespace velmora
