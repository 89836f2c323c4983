#include "Agent/AgentSession.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "Shared/Characters.h"
#include "Shared/ConnectionError.h"
#include "Shared/HostIdentity.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

namespace {

std::string digitsOf(std::string_view text) {
    std::string digits;
    std::ranges::copy_if(text, std::back_inserter(digits), [](char c) { return c >= '0' && c <= '9'; });
    return digits;
}

const std::string* hostIDIn(const DeviceDirectory::Device& device) {
    const auto* id = std::get_if<RemoteDevices::HostId>(&device.target);
    return id ? &id->digits : nullptr;
}

std::string lineOf(const DeviceDirectory::Device& device) {
    std::vector<std::string> parts{device.name};
    if (const auto* id = hostIDIn(device)) parts.push_back("ID " + HostIdentity::grouped(*id));
    switch (device.availability) {
        case DeviceDirectory::Availability::online:
            parts.emplace_back(device.lanEndpoint ? "online on this network" : "online");
            break;
        case DeviceDirectory::Availability::offline:
            parts.emplace_back("offline");
            break;
        case DeviceDirectory::Availability::unknown:
            break;
    }
    parts.emplace_back(device.isSaved ? "password saved" : "needs its password (connect with password)");
    return fmt::format("{}", fmt::join(parts, " · "));
}

std::string_view nameOf(AgentSession::State state) {
    switch (state) {
        case AgentSession::State::idle:
            return "idle";
        case AgentSession::State::connecting:
            return "connecting";
        case AgentSession::State::waitingForApproval:
            return "waiting for approval";
        case AgentSession::State::streaming:
            return "streaming";
        case AgentSession::State::ended:
            return "ended";
    }
    return "?";
}

}  // namespace

/// Where one connection's pictures arrive, on its own queue, perhaps a moment after it has gone.
class AgentSession::Inbox {
public:
    /// True for the first picture.
    bool put(const DecodedFrame& frame) {
        std::lock_guard guard(lock_);
        if (frame.isChange) ++changes_;  // a repeat shows nothing new: nobody waits for it
        return std::exchange(picture_, frame.picture) == nullptr;
    }
    SharedPicture picture() const {
        std::lock_guard guard(lock_);
        return picture_;
    }
    std::uint64_t changes() const {
        std::lock_guard guard(lock_);
        return changes_;
    }

private:
    mutable std::mutex lock_;
    SharedPicture picture_;      // the newest; guarded by lock_
    std::uint64_t changes_ = 0;  // guarded by lock_
};

/// Somebody waits for the screen to change and rest.
struct AgentSession::Watch {
    const std::uint64_t baseline;
    const HostClock::time_point deadline;
    const HostClock::duration settle;
    UniqueFunction<void(bool)> done;
    std::uint64_t lastCount = baseline;
    HostClock::time_point lastChange = {};
    TimerToken timer = {};
};

AgentSession::AgentSession(Settings settings, Services services, const Parameters& parameters)
    : services_(std::move(services)),
      main_(services_.main),
      parameters_(parameters),
      display_(settings.display),
      clientName_(std::move(settings.clientName)),
      deviceName_(std::move(settings.deviceName)) {}

// MARK: who is meant

std::vector<std::string> AgentSession::deviceLines() const {
    std::vector<std::string> lines;
    for (const Device& device : services_.devices.devices()) lines.push_back(lineOf(device));
    return lines;
}

std::string AgentSession::knownNames() const {
    std::vector<std::string> names;
    for (const Device& device : services_.devices.devices()) names.push_back(device.name);
    return fmt::format("{}", fmt::join(names, ", "));
}

std::optional<std::string> AgentSession::hostIDOf(const std::string& name) const {
    for (const Device& device : services_.devices.devices()) {
        if (!equalIgnoringCase(device.name, name)) continue;
        const auto* id = hostIDIn(device);
        return id ? std::optional(*id) : std::nullopt;
    }
    return std::nullopt;
}

std::string AgentSession::statusText() const {
    if (!deviceName_) return "Not connected. Call connect with one of: " + knownNames();
    switch (state_) {
        case State::idle:
            return fmt::format("Not connected to {} yet", *deviceName_);
        case State::connecting:
            return fmt::format("Connecting to {}…", *deviceName_);
        case State::waitingForApproval:
            return fmt::format("Waiting for {}", *deviceName_);
        case State::streaming: {
            const auto path = connection_ ? connection_->pathLabel() : std::nullopt;
            const PixelSize shot = shotSize();
            return fmt::format("Connected to {} via {}, screen {}×{}{}", *deviceName_, path.value_or("?"),
                               shot.width, shot.height,
                               textFieldFocused_ ? ", a text field has keyboard focus" : "");
        }
        case State::ended:
            return fmt::format("Disconnected from {}: {}", *deviceName_, endReason_);
    }
    return {};
}

void AgentSession::select(const Selection& selection) {
    assertOn(main_);
    if (selection.hostID && selection.password) {
        credentials_ = Credentials{digitsOf(*selection.hostID), digitsOf(*selection.password)};
    }
    const bool isSame = deviceName_ == selection.name;
    if (isSame && !credentials_ && !selection.password) return;
    disconnect();
    if (!isSame) remoteClipboard_.reset();  // what another Mac copied
    deviceName_ = selection.name;
    password_ = selection.password ? std::optional(digitsOf(*selection.password)) : std::nullopt;
}

// MARK: connecting

void AgentSession::ensureStreaming(HostClock::duration limit, UniqueFunction<void(const Status&)> done) {
    assertOn(main_);
    if (state_ == State::streaming) return done(Done{});
    waiters_.push_back(
        {std::move(done), main_.after(limit, [this] { fail(statusText() + ". Try again in a moment."); })});
    const bool isUnderWay = state_ == State::connecting || state_ == State::waitingForApproval;
    if (!isUnderWay) lookUp(main_.now() + parameters_.lookUpLimit);
}

void AgentSession::lookUp(HostClock::time_point deadline) {
    if (!deviceName_) return fail(statusText());
    if (state_ != State::connecting) moveTo(State::connecting, "a tool needs the screen");
    if (const auto credentials = std::exchange(credentials_, std::nullopt))
        return addAndConnect(*credentials);

    if (const auto device = candidate()) {
        if (device->isSaved || !hostIDIn(*device)) return connect(*device);
        return end(
            "Password needed",
            fmt::format("{0} needs its password: call connect with device \"{0}\" and password (6 digits, "
                        "shown in Velmora's menu on that Mac). It's saved for next time.",
                        device->name));
    }
    if (main_.now() < deadline) {
        lookUpTimer_ = main_.after(parameters_.lookUpInterval, [this, deadline] { lookUp(deadline); });
        return;
    }
    if (deviceName_->find_first_of(".:") != std::string::npos) {
        return connect(
            {.id = *deviceName_, .name = *deviceName_, .target = RemoteDevices::endpointFor(*deviceName_)});
    }
    const std::string known = knownNames();
    auto reason = fmt::format("No device named “{}”", *deviceName_);
    const auto forTheAgent =
        fmt::format("{}. Known devices: {}. Add it in Velmora first, or pass an IP address.", reason,
                    known.empty() ? "none found" : known);
    end(std::move(reason), forTheAgent);
}

/// Saves what the agent knows of a Mac, under the name it is seen by.
void AgentSession::addAndConnect(const Credentials& credentials) {
    std::string name = *deviceName_;
    for (const Device& device : services_.devices.devices()) {
        const auto* id = hostIDIn(device);
        if (!id || *id != credentials.hostID) continue;
        name = device.name;
        break;
    }
    if (name == credentials.hostID) name.clear();
    const auto device = services_.devices.add(name, credentials.hostID, credentials.password);
    if (!device) {
        return end("Invalid Host ID or password", "The Host ID needs 9 digits and the password 6.");
    }
    deviceName_ = device->name;
    connect(*device);
}

/// The device that is selected, by name or Host ID; a saved one rather than one that is only seen.
std::optional<AgentSession::Device> AgentSession::candidate() const {
    const std::string digits = digitsOf(*deviceName_);
    std::optional<Device> first;
    for (Device& device : services_.devices.devices()) {
        const auto* id = hostIDIn(device);
        if (!equalIgnoringCase(device.name, *deviceName_) && !(id && *id == digits)) continue;
        if (device.isSaved) return device;
        if (!first) first = std::move(device);
    }
    return first;
}

void AgentSession::connect(const Device& device) {
    if (!hostIDIn(device)) return open(device, password_);
    services_.devices.readPassword(
        device, attempt_.guard(
                    [this, device](const std::optional<std::string>& password) { open(device, password); }));
}

void AgentSession::open(const Device& device, const std::optional<std::string>& password) {
    displayList_.reset();
    textFieldFocused_ = false;
    inbox_ = std::make_shared<Inbox>();
    connection_ = std::make_unique<ViewerConnection>(ViewerOptions{.target = device.target,
                                                                   .name = device.name,
                                                                   .password = password,
                                                                   .lanEndpoint = device.lanEndpoint,
                                                                   .fingerprint = device.fingerprint,
                                                                   .clientName = clientName_,
                                                                   .audio = false,
                                                                   .agent = true},
                                                     services_.viewer, main_, services_.client);
    listenTo(*connection_);
    connection_->start(display_);
}

void AgentSession::listenTo(ViewerConnection& connection) {
    connection.onStatus = [this](ViewerConnection::Status status) {
        const bool waits = status == ViewerConnection::Status::waitingForApproval;
        const State next = waits ? State::waitingForApproval : State::connecting;
        if (next != state_) moveTo(next, "told by the connection");
    };
    connection.onEnded = [this](const ConnectionError& error) { handleEnd(error); };
    connection.onDisplayList = [this](const DisplayList& list) { displayList_ = list; };
    connection.onTextFocus = [this](bool isFocused) { textFieldFocused_ = isFocused; };
    // These two come on the client's queue.
    connection.onClipboard = [this, &main = main_, alive = attempt_.weak()](const Bytes& payload) {
        auto content = ClipboardContent::decode(payload);
        if (!content) return;
        main.post([this, alive, content = std::move(*content)]() mutable {
            if (!alive.expired()) remoteClipboard_ = std::move(content);
        });
    };
    connection.onDecodedFrame = [this, &main = main_, alive = attempt_.weak(),
                                 inbox = inbox_](const DecodedFrame& frame) {
        if (!inbox->put(frame)) return;
        main.post([this, alive] {
            if (!alive.expired()) pictureArrived();
        });
    };
}

void AgentSession::pictureArrived() {
    moveTo(State::streaming, "the first picture is here");
    answerWaiters(Done{});
}

void AgentSession::handleEnd(const ConnectionError& error) {
    const std::string reason = fmt::format("{}. {}", error.title, error.summary());
    end(reason, reason);
}

void AgentSession::end(std::string reason, const std::string& forTheAgent) {
    dropConnection();
    endReason_ = std::move(reason);
    moveTo(State::ended, endReason_);
    fail(forTheAgent);
}

void AgentSession::disconnect() {
    assertOn(main_);
    if (connection_) connection_->close();
    dropConnection();
    if (state_ != State::idle) moveTo(State::idle, "disconnected");
    fail("Disconnected");
}

/// Nothing of the connection, or of the search for one, is heard of any more.
void AgentSession::dropConnection() {
    attempt_.renew();
    lookUpTimer_.reset();
    connection_.reset();
    if (inbox_) pastChanges_ += inbox_->changes();
    inbox_.reset();
}

void AgentSession::fail(const std::string& description) {
    answerWaiters(Failure{description});
}

void AgentSession::answerWaiters(const Status& status) {
    for (Waiter& waiter : std::exchange(waiters_, {})) waiter.done(status);
}

void AgentSession::moveTo(State next, std::string_view reason) {
    debugLog(fmt::format("Agent session {} -> {}: {}", nameOf(state_), nameOf(next), reason));
    state_ = next;
}

// MARK: the screen

PixelSize AgentSession::shotSize() const {
    return connection_ ? ShotGeometry::shotSizeOf(connection_->streamSize()) : PixelSize{};
}

void AgentSession::takeShot(const std::optional<ShotGeometry::Region>& region,
                            UniqueFunction<void(std::optional<Shot>)> done) {
    assertOn(main_);
    const auto picture = inbox_ ? inbox_->picture() : nullptr;
    const auto cut =
        picture ? ShotGeometry::cutOf(picture->size, connection_->streamSize(), region) : std::nullopt;
    if (!cut) return done(std::nullopt);
    auto answer = liveness_.guard(
        [done = std::move(done)](std::optional<Shot> shot) mutable { done(std::move(shot)); });
    services_.worker.post(
        [&jpeg = services_.jpeg, &main = main_, picture, cut = *cut, answer = std::move(answer)]() mutable {
            std::optional<Shot> shot;
            auto file = jpeg.encode(*picture, cut.from, cut.size);
            if (file) {
                shot = Shot{std::move(*file), cut.size};
            } else {
                debugLog(fmt::format("⚠︎ No screenshot: {}", file.error().text));
            }
            main.post(
                [shot = std::move(shot), answer = std::move(answer)]() mutable { answer(std::move(shot)); });
        });
}

std::uint64_t AgentSession::changeCount() const {
    return pastChanges_ + (inbox_ ? inbox_->changes() : 0);
}

void AgentSession::waitForChange(const Rest& rest, UniqueFunction<void(bool)> done) {
    assertOn(main_);
    const auto now = main_.now();
    check(std::make_shared<Watch>(Watch{.baseline = changeCount(),
                                        .deadline = now + rest.limit,
                                        .settle = rest.settle,
                                        .done = std::move(done),
                                        .lastChange = now}));
}

void AgentSession::check(const std::shared_ptr<Watch>& watch) {
    const auto now = main_.now();
    const auto count = changeCount();
    if (std::exchange(watch->lastCount, count) != count) watch->lastChange = now;
    const bool hasChanged = count != watch->baseline;
    const bool rests = now - watch->lastChange >= watch->settle;
    if ((hasChanged && rests) || now >= watch->deadline) return watch->done(hasChanged);
    watch->timer = main_.after(parameters_.changeInterval, liveness_.guard([this, watch] { check(watch); }));
}

// MARK: acting

void AgentSession::send(const std::vector<InputEvent>& events) {
    if (!connection_) return;
    for (const InputEvent& event : events) connection_->sendInput(event);
}

void AgentSession::setRemoteClipboard(const std::string& text) {
    if (!connection_) return;
    connection_->sendClipboard({ClipboardContent::Kind::text, bytesOf(text)});
}

void AgentSession::selectDisplay(std::optional<std::uint32_t> id) {
    if (!connection_) return;
    const DisplaySelection selection{.displayID = id, .window = id ? std::nullopt : display_};
    connection_->send(MessageType::selectDisplay, selection.encode());
}

}  // namespace velmora
