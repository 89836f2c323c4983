#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"
#include "VelmoraKit/Transport/HostCertificate.h"
#include "VelmoraKit/Transport/MessageConnection.h"

namespace velmora {

/// Holds the host's certificate, and turns each accepted connection into the pair that the host works with:
/// typed messages on the control stream and, if the viewer opened one, the flow of video datagrams. The two
/// arrive in either order; they are handed over once, together.
/// Owned by StreamServer, on the main queue; the pairing itself runs on `queue` ("velmora.quic").
class QUICServer {
public:
    struct Parameters {
        std::chrono::milliseconds streamDeadline{10'000};  // for a control stream to have been handed over
        std::chrono::milliseconds flowWait{1'000};  // after the stream; then video goes over the stream
        /// Beyond it the one that has waited longest is dropped: a viewer opens its streams within a round
        /// trip, so that one is idle, and must not keep others out or memory taken.
        std::size_t maxWaiting = 64;
    };
    /// Runs on `queue`, since a key store may take seconds to answer.
    using CertificateLoader = std::function<Result<HostIdentityCertificate, KeyStore::Lack>()>;

    /// Both queues outlive the server.
    QUICServer(CertificateLoader loader, Queue& queue, Queue& main);
    QUICServer(CertificateLoader loader, Queue& queue, Queue& main, Parameters parameters);
    /// Connections still waiting for their streams are cancelled; those handed over live on.
    ~QUICServer();

    /// On the main queue: a control channel that somebody has yet to `adoptStarted`, with its limit for
    /// unauthenticated peers set, and the flow, already started on `queue`, if there is one. The flow's
    /// callbacks run on `queue`: set them there.
    std::function<void(std::shared_ptr<MessageConnection>, std::shared_ptr<DatagramFlow>)> onNewViewer;

    /// Set by `loadCertificate`; what a listener proves itself with, and what viewers remember.
    std::optional<TransportIdentity> identity;
    std::optional<std::string> fingerprint;

    /// Reads the certificate, or has it made; `done` runs on the main queue, with what the key store lacked
    /// if `identity` could not be set. May be repeated.
    void loadCertificate(std::function<void(std::optional<KeyStore::Lack>)> done);

    /// Takes over a group that a listener accepted, and starts it on `queue`.
    void accept(std::shared_ptr<ConnectionGroup> group);

private:
    class Pairing;
    struct Pairings;

    const CertificateLoader loader_;
    Queue& queue_;
    Queue& main_;
    std::shared_ptr<Pairings> pairings_;  // lives on queue_
    Liveness alive_;                      // on main
};

}  // namespace velmora
