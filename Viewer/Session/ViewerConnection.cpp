#include "Viewer/Session/ViewerConnection.h"

#include <fmt/format.h>

#include <string_view>
#include <utility>
#include <variant>

#include "Shared/HostIdentity.h"
#include "Shared/Preferences.h"
#include "Shared/Uuid.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Wire/SessionRecords.h"

namespace velmora {

namespace {

std::string_view pathWordFor(std::string_view label) {
    if (label.starts_with("LAN")) return "LAN";
    if (label.starts_with("Direct")) return "Direct";
    return "Relay";
}

std::string_view limitReasonOf(PathKind kind, std::string_view pathLabel) {
    if (kind.constrained) return "Low Data Mode";
    if (kind.expensive) return "cellular or hotspot";
    if (pathLabel == "Relay") return "relay";
    return {};
}

std::int64_t secondsIn(std::chrono::milliseconds span) {
    return std::chrono::duration_cast<std::chrono::seconds>(span).count();
}

/// Log lines about the control stream, written where its states arrive.
void logState(TransportState state, const std::optional<TransportError>& error, const Stream& stream,
              const std::string& helloLine) {
    const std::string reason = error ? error->text : "unknown";
    switch (state) {
        case TransportState::setup:
            return;
        case TransportState::preparing:
            return debugLog("Opening the control stream…");
        case TransportState::ready:
            debugLog(fmt::format("Connected via {} to {}", stream.interfaceDescription(),
                                 stream.remoteDescription()));
            return debugLog(helloLine);
        case TransportState::waiting:
            return debugLog(
                fmt::format("⚠︎ Waiting for the network: {}. A firewall, Local Network access or "
                            "the server not running can cause this.",
                            reason));
        case TransportState::failed:
            return debugLog(fmt::format("⚠︎ Connection failed: {}", reason));
        case TransportState::cancelled:
            return debugLog("Connection closed");
    }
}

}  // namespace

template <class F>
auto ViewerConnection::onMain(F f) {
    return [&main = main_, alive = liveness_.weak(), f = std::move(f)](auto... arguments) {
        main.post([alive, f, ... arguments = std::move(arguments)]() mutable {
            if (!alive.expired()) f(std::move(arguments)...);
        });
    };
}

ViewerConnection::ViewerConnection(ViewerOptions options, Services services, Queue& main, Queue& client,
                                   const Parameters& parameters)
    : options_(std::move(options)),
      services_(std::move(services)),
      main_(main),
      client_(client),
      parameters_(parameters),
      deviceID_(deviceIDIn(services_.preferences)),
      heartbeat_(main) {
    heartbeat_.onSnapshot = [this](const ViewerStats::Snapshot& snapshot) { handleSnapshot(snapshot); };
}

ViewerConnection::~ViewerConnection() {
    close();
    // Its queue may be in the middle of one of its functions: there it must end.
    if (media_) client_.post([media = std::move(media_)] {});
}

std::string ViewerConnection::deviceIDIn(PreferenceStore& preferences) {
    if (auto stored = preferences.string(PreferenceKeys::deviceID)) return *std::move(stored);
    std::string made = newUuid();
    preferences.set(PreferenceKeys::deviceID, made);
    return made;
}

// The ladder

void ViewerConnection::start(std::optional<DisplayRequest> initialRequest) {
    assertOn(main_);
    initialRequest_ = initialRequest;
    const std::string_view screen = initialRequest ? "match this window" : "server's own display";

    if (const auto* endpoint = std::get_if<Endpoint>(&options_.target)) {
        debugLog(fmt::format("Connecting to “{}” ({}) over QUIC, screen: {}…", options_.name,
                             endpoint->text(), screen));
        connectOnLocalNetwork(
            *endpoint, [this](const std::string&) { end(ConnectionError::unreachable(options_.name)); });
        return;
    }
    const std::string& hostID = std::get<RemoteDevices::HostId>(options_.target).digits;
    // An advertised fingerprint proves nothing by itself: only one that the service has told before does.
    const bool isKnownHere =
        options_.lanEndpoint && options_.fingerprint && !options_.fingerprint->empty() &&
        services_.preferences.string(PreferenceKeys::hostFingerprint(hostID)) == options_.fingerprint;
    if (!isKnownHere) {
        debugLog(fmt::format("Connecting to “{}” by Host ID {} through Velmora Cloud, screen: {}…",
                             options_.name, HostIdentity::grouped(hostID), screen));
        connectThroughRendezvous(hostID);
        return;
    }
    debugLog(fmt::format("Connecting to “{}” on this network ({}), screen: {}…", options_.name,
                         options_.lanEndpoint->text(), screen));
    connectOnLocalNetwork(*options_.lanEndpoint, [this, hostID](const std::string& reason) {
        debugLog(fmt::format("⚠︎ Local connection failed ({}); trying through Velmora Cloud", reason));
        attempts_.clear();
        connectThroughRendezvous(hostID);
    });
}

/// `failed` runs at most once, and may destroy us.
void ViewerConnection::connectOnLocalNetwork(const Endpoint& endpoint,
                                             std::function<void(const std::string&)> failed) {
    const auto failOnce = [failed = std::move(failed),
                           spent = std::make_shared<bool>(false)](const std::string& reason) {
        if (!std::exchange(*spent, true)) failed(reason);
    };
    QUICClient& client = addClient(
        {.label = "LAN " + endpoint.text(), .endpoint = endpoint, .verification = verificationFor(endpoint)});
    client.onFailed = [this, failOnce](QUICClient& failing, const std::string& reason) {
        // Once it carries the session, the control stream tells how that ends.
        if (&failing != quic_.get()) failOnce(reason);
    };
    connectTimer_ = main_.after(parameters_.localLimit, [limit = parameters_.localLimit, &client, failOnce] {
        // Held only as long as the client is one of ours: a failed one has taken this timer with it.
        client.cancel();
        failOnce(
            fmt::format("no answer within {} s. Make sure Velmora is running on it and both devices are "
                        "on the same network.",
                        secondsIn(limit)));
    });
    client.start();
}

void ViewerConnection::connectThroughRendezvous(const std::string& hostID) {
    connectTimer_.reset();
    if (!options_.password) {
        main_.post(liveness_.guard([this] { end(ConnectionError::noSavedPassword(options_.name)); }));
        return;
    }
    if (!services_.makeRendezvousPath) {
        main_.post(liveness_.guard([this] {
            debugLog("⚠︎ Can't reach Velmora Cloud: this program has no way to it");
            end(ConnectionError::noInternet());
        }));
        return;
    }
    connectTimer_ = main_.after(parameters_.rendezvousLimit, [this] {
        debugLog(fmt::format("⚠︎ No connection after {} s; giving up",
                             secondsIn(parameters_.rendezvousLimit)));
        end(ConnectionError::offline(options_.name));
    });
    rendezvous_ = services_.makeRendezvousPath(*this);
    rendezvous_->start(hostID);
}

/// Runs where certificates are checked: a network thread.
QUICSetup::Verification ViewerConnection::verificationFor(const Endpoint& endpoint) const {
    if (options_.fingerprint && !options_.fingerprint->empty()) {
        return QUICSetup::Pinned{*options_.fingerprint};
    }
    return QUICSetup::TrustOnFirstUse{
        [&preferences = services_.preferences, name = options_.name,
         key = PreferenceKeys::knownHost(endpoint.text())](const std::string& fingerprint) {
            const auto known = preferences.string(key);
            if (known) {
                if (*known == fingerprint) return true;
                debugLog(fmt::format(
                    "⚠︎ {} presented a different certificate than last time; refusing. If it was "
                    "reinstalled, remove and add it again.",
                    name));
                return false;
            }
            preferences.set(key, fingerprint);
            debugLog(fmt::format("First connection to {}: remembering its certificate {}…", name,
                                 fingerprint.substr(0, 16)));
            return true;
        }};
}

QUICClient& ViewerConnection::addClient(QUICClient::Attempt attempt) {
    attempts_.push_back(
        std::make_unique<QUICClient>(std::move(attempt), services_.transport, client_, main_));
    QUICClient& client = *attempts_.back();
    client.onReady = [this](QUICClient& ready) { win(ready); };
    return client;
}

void ViewerConnection::attempt(Attempt attempt) {
    QUICClient& client = addClient({.label = attempt.label,
                                    .endpoint = std::move(attempt.endpoint),
                                    .verification = QUICSetup::Pinned{std::move(attempt.fingerprint)},
                                    .localPort = attempt.localPort});
    client.onFailed = [](QUICClient& failed, const std::string& reason) {
        debugLog(fmt::format("QUIC via {} failed: {}", failed.label(), reason));
    };
    client.start();
}

std::string ViewerConnection::attemptedLabels() const {
    std::string labels;
    for (const auto& client : attempts_) {
        if (!labels.empty()) labels += ", ";
        labels += client->label();
    }
    return labels;
}

// The win

void ViewerConnection::win(QUICClient& client) {
    assertOn(main_);
    if (quic_ || closed_) return;
    for (auto& attempt : attempts_) {
        if (attempt.get() == &client) quic_ = std::move(attempt);
    }
    attempts_.clear();  // which cancels the others
    pathLabel_ = pathWordFor(client.label());
    debugLog(fmt::format("QUIC connected via {} (encrypted, host certificate verified)", client.label()));

    auto stream = client.openControlStream();
    if (!stream) return end(ConnectionError::unreachable(options_.name));
    media_ = std::make_shared<ViewerMediaPath>(options_.name, client_, services_.decompressors,
                                               services_.renderer, services_.vsync);
    listenToMedia();
    attach(std::move(stream));
    heartbeat_.use(connection_, media_);
    startVideo();
    pathRequest_ = services_.paths.currentPath([this](PathKind kind) { limitBitrateByPath(kind); });
}

void ViewerConnection::listenToMedia() {
    media_->onStream = onMain([this](const ViewerMediaPath::StreamFormat& format) { handleStream(format); });
    media_->onLostFrame = onMain([this] { heartbeat_.countLostFrame(); });
    media_->onDenied = onMain([this](const ConnectionError& error) { end(error); });
    media_->onCursor = onMain([this](const CursorShape& shape) {
        if (const auto notify = onCursor; notify && !closed_) notify(shape);
    });
    media_->onDisplayList = onMain([this](const DisplayList& list) {
        if (const auto notify = onDisplayList; notify && !closed_) notify(list);
    });
    media_->onTextFocus = onMain([this](bool focused) {
        if (const auto notify = onTextFocus; notify && !closed_) notify(focused);
    });
    media_->onClipboard = onClipboard;
    media_->onDecodedFrame = onDecodedFrame;
}

void ViewerConnection::attach(std::shared_ptr<Stream> stream) {
    connection_ = std::make_shared<MessageConnection>(std::move(stream), client_);
    media_->sendThrough(connection_);
    connection_->onMessage = [media = media_](MessageType type, const Bytes& payload) {
        media->handle(type, payload);
    };
    connection_->onStateChange = [line = helloLine(), stream = &connection_->stream(),
                                  tell = onMain([this](TransportState state) { handleState(state); })](
                                     TransportState state, const std::optional<TransportError>& error) {
        logState(state, error, *stream, line);
        tell(state);
    };
    connection_->start();
    // Before the stream has said that it is ready, so that nothing of the video can leave before it.
    connection_->sendJSON(MessageType::hello, hello());
}

void ViewerConnection::startVideo() {
    quic_->startVideo({
        .onFrame = [media = media_](const Bytes& record) { media->handle(MessageType::videoFrame, record); },
        .onGap = [media = media_] { media->handleGap(); },
        .onNack = [media = media_](const Nack& nack) { media->handleNack(nack); },
    });
}

Hello ViewerConnection::hello() const {
    Hello hello{.name = options_.clientName,
                .display = initialRequest_,
                .deviceID = deviceID_,
                .sessionToken = sessionToken_,
                .audio = options_.audio};
    // The service has taken the password already, and the token stands for it.
    if (!sessionToken_) hello.password = options_.password;
    if (options_.agent) hello.agent = true;
    return hello;
}

std::string ViewerConnection::helloLine() const {
    std::string line = "Sending hello: server's own display";
    if (initialRequest_) {
        line = fmt::format("Sending hello: window {}×{} pt @{}x", initialRequest_->width,
                           initialRequest_->height, initialRequest_->scale);
    }
    line += fmt::format(", protocol v{}", velmoraProtocolVersion);
    if (sessionToken_) line += ", with session token";
    return line;
}

void ViewerConnection::limitBitrateByPath(PathKind kind) {
    const std::string_view reason = limitReasonOf(kind, *pathLabel_);
    if (reason.empty()) return;
    heartbeat_.limitBitrate(ViewerPreferences::cellularMbps(services_.preferences), reason);
}

void ViewerConnection::reportConnecting() {
    if (const auto notify = onStatus) notify(Status::connecting);
}

void ViewerConnection::handleState(TransportState state) {
    switch (state) {
        case TransportState::setup:
        case TransportState::preparing:
        case TransportState::waiting:
            return;  // a time limit ends it if it stays so
        case TransportState::ready:
            if (closed_) return;
            connected_ = true;
            connectTimer_.reset();
            if (!isStreaming_) reportConnecting();
            return;
        case TransportState::failed:
            return end(isStreaming_ ? ConnectionError::connectionLost(options_.name)
                                    : ConnectionError::unreachable(options_.name));
        case TransportState::cancelled:
            return end(isStreaming_ ? ConnectionError::endedByHost(options_.name)
                                    : ConnectionError::unreachable(options_.name));
    }
}

// The stream

void ViewerConnection::handleStream(const ViewerMediaPath::StreamFormat& format) {
    if (closed_) return;
    stream_.codec = format.codecName;
    stream_.hardwareDecode = format.hardwareDecode;
    if (format.hasChanged) {
        stream_.width = format.size.width;
        stream_.height = format.size.height;
        if (!isStreaming_) lastSnapshotSave_ = main_.now();
        isStreaming_ = true;
    }
    heartbeat_.setStream(stream_);
    if (!format.hasChanged) return;
    if (const auto notify = onStreamChanged) notify(format.size, format.isDynamic);
}

void ViewerConnection::handleSnapshot(const ViewerStats::Snapshot& snapshot) {
    silence_ = snapshot.isSilent ? silence_ + 1 : 0;
    reopenPathIfSilent();
    if (main_.now() - lastSnapshotSave_ > parameters_.snapshotInterval) {
        if (auto image = lastImage()) {
            lastSnapshotSave_ = main_.now();
            if (services_.saveSnapshot) services_.saveSnapshot(std::move(image), options_.name);
        }
    }
    if (const auto notify = onStats) notify(snapshot);
}

void ViewerConnection::reopenPathIfSilent() {
    const int silentBeats = parameters_.silentBeats;
    // Once is enough for the host to know; a relay may find it too early at first.
    if (pathLabel_ == "Direct" && silence_ == silentBeats) rendezvous_->reopenDirect();
    if (pathLabel_ == "Relay" && silence_ > 0 && silence_ % silentBeats == 0) rendezvous_->reopenRelay();
}

void ViewerConnection::sendInput(const InputEvent& event) {
    assertOn(main_);
    if (isStreaming_) connection_->sendJSON(MessageType::input, event);
}

void ViewerConnection::send(MessageType type, ByteView payload) {
    assertOn(main_);
    if (connection_ && !closed_) connection_->send(type, payload);
}

void ViewerConnection::sendClipboard(const ClipboardContent& content) {
    assertOn(main_);
    if (connection_ && !closed_) connection_->sendBulk(MessageType::clipboard, content.encode());
}

// The end

void ViewerConnection::close() {
    assertOn(main_);
    if (closed_) return;
    if (connection_) connection_->send(MessageType::bye);
    tearDown();
}

void ViewerConnection::end(const ConnectionError& error) {
    assertOn(main_);
    if (closed_) return;
    debugLog(fmt::format("Connection ended: {}. {}", error.title, error.summary()));
    tearDown();
    if (const auto notify = onEnded) notify(error);
}

void ViewerConnection::tearDown() {
    if (media_) {
        if (auto image = media_->latestPicture(); image && services_.saveSnapshot) {
            services_.saveSnapshot(std::move(image), options_.name);
        }
        media_->forgetLatestPicture();
        client_.post([media = media_] { media->close(); });
    }
    closed_ = true;
    isStreaming_ = false;
    heartbeat_.stop();
    connectTimer_.reset();
    pathRequest_.reset();
    if (connection_) connection_->cancel();
    attempts_.clear();
    if (quic_) quic_->cancel();
    if (rendezvous_) rendezvous_->hangUp();
}

}  // namespace velmora
