#include "Tools/Look/CompositionLook.h"

#include <utility>

#include "Platform/Linux/Codec/AvcodecDecompressor.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {

namespace {

/// Figures taken by a script shall not depend on what this machine's network costs.
class FreePath final : public PathMonitor {
public:
    explicit FreePath(Queue& main) : main_(main) {}
    std::unique_ptr<Request> currentPath(std::function<void(PathKind)> onPath) override {
        auto request = std::make_unique<Pending>();
        main_.post(request->alive.guard([onPath = std::move(onPath)] { onPath({}); }));
        return request;
    }

private:
    struct Pending final : Request {
        Liveness alive;
    };
    Queue& main_;
};

class LinuxLookServices final : public LookServices {
public:
    /// What runs ends before what it uses goes.
    ~LinuxLookServices() override {
        network_.reset();
        client_.end();
        main_.end();
    }
    Queue& main() override { return main_; }
    Queue& client() override { return client_; }
    ViewerConnection::Services viewer() override {
        return {.transport = *network_,
                .preferences = preferences_,
                .paths = paths_,
                .decompressors = decompressors_};
    }

private:
    ThreadQueue main_{"main"};
    ThreadQueue client_{"velmora.quic.client"};
    JsonPreferenceStore preferences_{JsonPreferenceStore::defaultFile()};
    FreePath paths_{main_};
    AvcodecDecompressorFactory decompressors_{AvcodecDecompressor::Parameters{}};
    std::unique_ptr<NetworkStack> network_ = makeQuicTransportStack();
};

}  // namespace

std::unique_ptr<LookServices> composeLook() {
    return std::make_unique<LinuxLookServices>();
}

}  // namespace velmora
