#include "Host/StreamServer.h"

#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

StreamServer::StreamServer(Services services, ServerSettings initialSettings)
    : StreamServer(std::move(services), initialSettings, Parameters()) {}

StreamServer::StreamServer(Services services, ServerSettings initialSettings, Parameters parameters)
    : settings(initialSettings),
      services_(std::move(services)),
      parameters_(parameters),
      main_(services_.main),
      quic_(services_.loadCertificate, services_.quic, services_.main) {
    quic_.onNewViewer = [this](auto connection, auto video) {
        handleNew(std::move(connection), std::move(video));
    };
}

StreamServer::~StreamServer() {
    if (session_) session_->session->stop();
    for (auto& [key, viewer] : viewers_) {
        viewer.connection->cancel();
        if (viewer.videoFlow) viewer.videoFlow->cancel();
    }
    closeListener();
}

void StreamServer::report(const std::string& text, bool connected) {
    if (const auto notify = onStatus) notify(text, connected);
}

void StreamServer::setWaiting() {
    report(wantsRunning_ ? "Running · waiting for a viewer" : "Stopped");
}

// Listening

void StreamServer::start() {
    assertOn(main_);
    wantsRunning_ = true;
    updateKeepAwake();
    if (listener_ || loadingCertificate_) return;
    restart_.reset();
    listenerCheck_ = main_.after(parameters_.listenerDeadline, [this] { listenerBlocked(); });
    if (quic_.identity) {
        listen();
        return;
    }
    loadingCertificate_ = true;
    quic_.loadCertificate(alive_.guard([this](std::optional<KeyStore::Lack> lack) {
        loadingCertificate_ = false;
        if (wantsRunning_) certificateLoaded(lack);
    }));
}

void StreamServer::certificateLoaded(std::optional<KeyStore::Lack> lack) {
    if (!lack) {
        listen();
        return;
    }
    if (*lack == KeyStore::Lack::absent) {
        report("Can't create this Mac's QUIC certificate; see the debug log");
        return;
    }
    // It may well exist: making another one would turn every viewer that knows this host away.
    listenerCheck_.reset();
    if (!std::exchange(toldCertificateUnavailable_, true)) {
        hostLog("⚠︎ The keychain doesn't answer, so this Mac's QUIC certificate can't be read yet");
    }
    report("Waiting for this Mac's keychain to be unlocked");
    restart_ = main_.after(parameters_.certificateRetry, [this] { start(); });
}

void StreamServer::listen() {
    toldCertificateUnavailable_ = false;
    serviceName_ = services_.machine.localizedName();
    if (serviceName_.empty()) serviceName_ = "Mac";
    QUICSetup::Parameters parameters;
    parameters.identity = quic_.identity;
    listener_ = services_.transport.listenOn(parameters_.port, parameters);
    listener_->onState = [this](TransportState state, const auto& error) {
        handleListenerState(state, error);
    };
    listener_->onGroup = [this](auto group) { quic_.accept(std::move(group)); };
    listener_->start(main_);
}

void StreamServer::handleListenerState(TransportState state, const std::optional<TransportError>& error) {
    switch (state) {
        case TransportState::ready:
            listenerReady();
            return;
        case TransportState::waiting:
            hostLog(fmt::format("⚠︎ Listener waiting: {}", error ? error->text : "?"));
            listenerBlocked();
            return;
        case TransportState::failed:
            listenerFailed(error.value_or(TransportError{.text = "?"}));
            return;
        case TransportState::setup:
        case TransportState::preparing:
        case TransportState::cancelled:
            return;
    }
}

void StreamServer::listenerReady() {
    listenerCheck_.reset();
    const auto credentials = identity ? identity() : std::nullopt;
    advertisement_ =
        services_.discovery.publish({.name = serviceName_,
                                     .type = velmoraServiceType,
                                     .port = parameters_.port,
                                     .txt = {{"fp", quic_.fingerprint.value_or("")},
                                             {"kind", std::string(rawValueOf(services_.machineKind()))},
                                             {"id", credentials ? credentials->id : ""}}},
                                    main_, nullptr);
    hostLog(fmt::format("Listening for QUIC on UDP {} as “{}”", parameters_.port, serviceName_));
    setWaiting();
}

void StreamServer::listenerFailed(const TransportError& error) {
    hostLog(fmt::format("⚠︎ Listener failed: {}", error.text));
    advertisement_.reset();
    restart_ = main_.after(parameters_.restartDelay, [this] {
        if (!wantsRunning_) return;
        closeListener();
        start();
    });
    if (error.code == EADDRINUSE) {
        report(fmt::format("Port {} is in use. Is another copy of Velmora running?", parameters_.port));
    } else {
        report(fmt::format("Listener failed: {}. Retrying…", error.text));
    }
}

void StreamServer::listenerBlocked() {
    report("Viewers can't connect: allow Local Network access for Velmora");
    if (std::exchange(reportedBlocked_, true)) return;
    if (const auto notify = onListenerBlocked) notify();
}

void StreamServer::closeListener() {
    advertisement_.reset();
    if (listener_) listener_->cancel();
    listener_.reset();
}

void StreamServer::stop() {
    assertOn(main_);
    wantsRunning_ = false;
    updateKeepAwake();
    listenerCheck_.reset();
    restart_.reset();
    disconnect();
    if (pending_) viewers_.at(pending_).connection->cancel();
    pending_ = nullptr;
    closeListener();
    hostLog("Server stopped");
    report("Stopped");
}

void StreamServer::disconnect() {
    if (!session_) return;
    MessageConnection& connection = *viewers_.at(session_->viewer).connection;
    connection.send(MessageType::bye);
    connection.cancel();
}

void StreamServer::authorize(const std::string& token, const std::string& viewerName) {
    admission_.authorize(token, viewerName, main_.now());
}

void StreamServer::updateKeepAwake() {
    const bool wanted = wantsRunning_ && settings.keepAwake;
    if (wanted == (keepAwake_ != nullptr)) return;
    if (!wanted) {
        keepAwake_.reset();
        hostLog("This Mac may sleep again");
        return;
    }
    keepAwake_ = services_.keepAwake.preventIdleSystemSleep(
        "Keeping this Mac reachable for Velmora viewers", [this](const Status& outcome) {
            if (outcome) {
                hostLog("Keeping this Mac awake while the server runs");
                return;
            }
            hostLog(
                fmt::format("⚠︎ Couldn't keep this Mac awake (IOKit error {})", outcome.error().code));
            // Not from inside its own call.
            main_.post(alive_.guard([this] { keepAwake_.reset(); }));
        });
}

// Admission

void StreamServer::handleNew(std::shared_ptr<MessageConnection> connection,
                             std::shared_ptr<DatagramFlow> video) {
    if (!wantsRunning_) {  // it was on its way when the server stopped
        connection->cancel();
        if (video) video->cancel();
        return;
    }
    if (pending_) {
        hostLog(fmt::format("Rejected connection from {}: another viewer is still connecting",
                            connection->remoteDescription()));
        connection->cancel();
        if (video) video->cancel();
        return;
    }
    hostLog(fmt::format("Viewer connecting from {} over QUIC{}", connection->remoteDescription(),
                        video ? " (video as datagrams)" : ""));
    const ViewerKey key = connection.get();
    pending_ = key;
    connection->onMessage = [this, key, &main = main_, weak = alive_.weak()](MessageType type,
                                                                             Bytes payload) {
        if (type != MessageType::hello) return;
        auto decoded = Hello::decode(payload);
        auto hello = decoded ? std::optional(*std::move(decoded)) : std::nullopt;
        main.post([this, key, weak, hello = std::move(hello)] {
            if (!weak.expired()) handleHello(key, hello);
        });
    };
    connection->onStateChange = [this, key, &main = main_, weak = alive_.weak()](TransportState state,
                                                                                 const auto&) {
        if (state != TransportState::failed && state != TransportState::cancelled) return;
        main.post([this, key, weak] {
            if (!weak.expired()) connectionEnded(key);
        });
    };
    Viewer& viewer = viewers_[key];
    viewer.connection = std::move(connection);
    viewer.videoFlow = std::move(video);
    viewer.helloDeadline = main_.after(parameters_.helloDeadline, [this, key] { helloOverdue(key); });
    viewer.connection->adoptStarted();
}

void StreamServer::helloOverdue(ViewerKey key) {
    MessageConnection& connection = *viewers_.at(key).connection;
    hostLog(fmt::format("⚠︎ Viewer at {} didn't say hello within {} s; dropping it",
                        connection.remoteDescription(),
                        std::chrono::duration_cast<std::chrono::seconds>(parameters_.helloDeadline).count()));
    pending_ = nullptr;
    connection.cancel();
}

void StreamServer::logAndSend(const std::string& text, MessageConnection& connection) {
    hostLog(text);
    connection.send(MessageType::log, viewOf(text));
}

void StreamServer::handleHello(ViewerKey key, const std::optional<Hello>& hello) {
    // Only the first one counts: a viewer that was denied, dropped or let in has had its say.
    const auto found = viewers_.find(key);
    if (found == viewers_.end() || key != pending_ || !found->second.helloDeadline) return;
    Viewer& viewer = found->second;
    viewer.helloDeadline.reset();

    Admission::Circumstances circumstances{.credentials = identity ? identity() : std::nullopt,
                                           .now = main_.now()};
    if (session_) circumstances.session = Admission::Running{session_->deviceID};
    const Admission::Decision decision = admission_.decide(hello, circumstances);

    if (decision.replacement) replaceSession(viewer, *decision.replacement);
    switch (decision.outcome) {
        case Admission::Outcome::wrongProtocol:
            logAndSend(decision.text, *viewer.connection);
            viewer.connection->cancel();
            return;
        case Admission::Outcome::denied:
            deny(viewer, decision);
            if (decision.replacement) setWaiting();
            return;
        case Admission::Outcome::admitted:
            logAndSend(decision.text, *viewer.connection);
            beginSession(viewer, *hello);
            return;
    }
}

void StreamServer::replaceSession(Viewer& newcomer, const std::string& text) {
    logAndSend(text, *newcomer.connection);
    viewers_.at(session_->viewer).connection->cancel();
    endSession();
}

void StreamServer::deny(Viewer& viewer, const Admission::Decision& decision) {
    hostLog(decision.text);
    pending_ = nullptr;
    sendDenial(viewer, decision.code, decision.message);
}

void StreamServer::sendDenial(Viewer& viewer, std::string_view code, std::string_view message) {
    viewer.connection->send(MessageType::denied, HostDenial::encode(code, message));
    viewer.linger =
        main_.after(parameters_.denialLinger, [connection = viewer.connection] { connection->cancel(); });
}

// The session

void StreamServer::beginSession(Viewer& viewer, const Hello& hello) {
    pending_ = nullptr;
    const ViewerKey key = viewer.connection.get();
    viewer.connection->setUnauthenticatedLimit(std::nullopt);
    session_ = Session{.viewer = key,
                       .deviceID = hello.deviceID,
                       .session = services_.makeSession({.connection = viewer.connection,
                                                         .videoFlow = viewer.videoFlow,
                                                         .settings = settings,
                                                         .display = hello.display,
                                                         .audio = hello.audio.value_or(false),
                                                         .agent = hello.agent.value_or(false)})};
    viewer.connection->queue().post(
        [connection = viewer.connection, handler = session_->session->messageHandler()] {
            connection->onMessage = handler;
        });
    connectedViewerName_ = hello.name;
    report(fmt::format("Streaming to “{}”", hello.name), true);
    if (!session_) return;  // whoever was told has stopped the server
    session_->session->start(alive_.guard([this, key, name = hello.name](const Status& outcome) {
        if (!session_ || session_->viewer != key) return;
        if (outcome) {
            startStats(name);
        } else {
            sessionFailed(key, outcome.error());
        }
    }));
}

void StreamServer::sessionFailed(ViewerKey key, const Failure& failure) {
    hostLog(fmt::format("⚠︎ Session failed to start: {}", failure.text));
    hostLog("Told the viewer that screen capture failed");
    sendDenial(viewers_.at(key), HostDenial::capture,
               fmt::format("Screen capture didn't start: {}", failure.text));
    // The session goes when the connection has ended.
    report(fmt::format("Capture failed: {}", failure.text));
}

void StreamServer::endSession() {
    session_->session->stop();
    session_.reset();
    connectedViewerName_.reset();
    statsTimer_.reset();
}

void StreamServer::connectionEnded(ViewerKey key) {
    const auto found = viewers_.find(key);
    if (found == viewers_.end()) return;
    const Viewer viewer = std::move(found->second);
    viewers_.erase(found);
    if (viewer.videoFlow) viewer.videoFlow->cancel();
    if (pending_ == key) pending_ = nullptr;
    if (!session_ || session_->viewer != key) return;
    hostLog("Viewer disconnected");
    endSession();
    setWaiting();
}

void StreamServer::startStats(const std::string& viewerName) {
    statsTimer_ = main_.after(std::chrono::seconds(1), [this, viewerName] {
        const auto [frames, bytes] = session_->session->takeStatistics();
        startStats(viewerName);
        report(fmt::format("Streaming to {} · {} fps · {:.1f} Mbit/s", viewerName, frames,
                           static_cast<double>(bytes) * 8 / 1'000'000),
               true);
    });
}

}  // namespace velmora
