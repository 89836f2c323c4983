#include "Host/QUICServer.h"

#include <fmt/format.h>

#include <cassert>
#include <utility>
#include <vector>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

/// The groups whose streams are awaited.
struct QUICServer::Pairings {
    using HandOver = std::function<void(std::shared_ptr<MessageConnection>, std::shared_ptr<DatagramFlow>)>;

    Queue& queue;
    const Parameters parameters;
    const HandOver handOver;
    std::vector<std::shared_ptr<Pairing>> waiting;  // in the order of their coming
};

/// One accepted group until its hand-over. Lives on the server's queue, owned by `Pairings::waiting`, and
/// leaves it when it is done.
class QUICServer::Pairing : public std::enable_shared_from_this<Pairing> {
public:
    Pairing(std::shared_ptr<ConnectionGroup> group, Pairings& pairings)
        : group_(std::move(group)), pairings_(pairings) {}

    void start();
    void drop();

private:
    void handleState(TransportState state, const std::optional<TransportError>& error);
    void handleStream(std::shared_ptr<Stream> stream);
    void handleFlow(std::shared_ptr<DatagramFlow> flow);
    void handOver();
    void dropAsSilent();
    void finish();

    const std::shared_ptr<ConnectionGroup> group_;
    Pairings& pairings_;
    std::shared_ptr<Stream> control_;
    std::shared_ptr<DatagramFlow> video_;
    TimerToken deadline_;
    TimerToken flowWait_;
};

void QUICServer::Pairing::start() {
    const std::weak_ptr<Pairing> weak = weak_from_this();
    const auto forward = [weak](auto handle) {
        return [weak, handle](const auto&... args) {
            if (const auto self = weak.lock()) (*self.*handle)(args...);
        };
    };
    group_->onState = forward(&Pairing::handleState);
    group_->onStream = forward(&Pairing::handleStream);
    group_->onDatagramFlow = forward(&Pairing::handleFlow);
    const auto expire = forward(&Pairing::dropAsSilent);
    deadline_ = pairings_.queue.after(pairings_.parameters.streamDeadline, expire);
    group_->start(pairings_.queue);
}

void QUICServer::Pairing::handleState(TransportState state, const std::optional<TransportError>& error) {
    if (state == TransportState::failed) {
        hostLog(fmt::format("QUIC connection failed: {}", error ? error->text : "?"));
        return drop();
    }
    if (state == TransportState::cancelled) finish();
}

void QUICServer::Pairing::handleStream(std::shared_ptr<Stream> stream) {
    if (control_) return;  // the first to deliver a byte is the control stream; another one ends right here
    control_ = std::move(stream);
    control_->start(pairings_.queue);
    flowWait_ = pairings_.queue.after(pairings_.parameters.flowWait, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->handOver();
    });
}

void QUICServer::Pairing::handleFlow(std::shared_ptr<DatagramFlow> flow) {
    // Nothing is read from it: the byte by which the viewer opened it has done its work by arriving.
    flow->start(pairings_.queue);
    video_ = std::move(flow);
    if (control_) handOver();
}

void QUICServer::Pairing::handOver() {
    auto connection = std::make_shared<MessageConnection>(std::move(control_), pairings_.queue);
    connection->setUnauthenticatedLimit(MessageConnection::unauthenticatedPayload);
    pairings_.handOver(std::move(connection), std::move(video_));
    finish();
}

void QUICServer::Pairing::dropAsSilent() {
    hostLog("⚠︎ A QUIC connection didn't open its streams within 10 s; dropping it");
    drop();
}

void QUICServer::Pairing::drop() {
    group_->cancel();
    finish();
}

void QUICServer::Pairing::finish() {
    deadline_.reset();
    flowWait_.reset();
    std::erase(pairings_.waiting, shared_from_this());
}

QUICServer::QUICServer(CertificateLoader loader, Queue& queue, Queue& main)
    : QUICServer(std::move(loader), queue, main, Parameters()) {}

QUICServer::QUICServer(CertificateLoader loader, Queue& queue, Queue& main, Parameters parameters)
    : loader_(std::move(loader)), queue_(queue), main_(main) {
    auto tell = [this, weak = alive_.weak(), &main](auto connection, auto video) {
        main.post([this, weak, connection = std::move(connection), video = std::move(video)]() mutable {
            if (weak.expired()) return;
            if (const auto notify = onNewViewer) notify(std::move(connection), std::move(video));
        });
    };
    pairings_ = std::shared_ptr<Pairings>(new Pairings{queue, parameters, std::move(tell), {}});
}

QUICServer::~QUICServer() {
    queue_.post([pairings = std::move(pairings_)] {
        while (!pairings->waiting.empty()) pairings->waiting.back()->drop();
    });
}

void QUICServer::loadCertificate(std::function<void(std::optional<KeyStore::Lack>)> done) {
    queue_.post([this, weak = alive_.weak(), loader = loader_, &main = main_, done = std::move(done)] {
        main.post([this, weak, loaded = loader(), done] {
            if (weak.expired()) return;
            if (!loaded) {
                if (done) done(loaded.error());
                return;
            }
            identity = loaded.value().identity;
            fingerprint = loaded.value().fingerprint;
            if (done) done(std::nullopt);
        });
    });
}

void QUICServer::accept(std::shared_ptr<ConnectionGroup> group) {
    queue_.post([pairings = pairings_, group = std::move(group)]() mutable {
        if (pairings->waiting.size() >= pairings->parameters.maxWaiting) {
            hostLog("⚠︎ Too many QUIC connections haven't opened their streams; dropping the oldest");
            pairings->waiting.front()->drop();
        }
        pairings->waiting.push_back(std::make_shared<Pairing>(std::move(group), *pairings));
        pairings->waiting.back()->start();
    });
}

}  // namespace velmora
