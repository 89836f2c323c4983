#include "Benchmarks/Stream/BenchViewer.h"

#include <fmt/format.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <sstream>
#include <utility>

#include "Benchmarks/Stream/ScreenLoad.h"
#include "Platform/Linux/Codec/AvcodecDecompressor.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "Testing/FakePathMonitor.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {

using namespace std::chrono_literals;

/// The row for the statistics file has what no other figure tells.
int keyframesIn(const std::string& row) {
    constexpr int column = 8;
    std::istringstream cells(row);
    std::string cell;
    for (int i = 0; i <= column; ++i) std::getline(cells, cell, ',');
    return std::atoi(cell.c_str());
}

/// A viewer's, by address alone: what the network costs shall not change the figures.
struct BenchViewer::Services {
    explicit Services(const ScratchFolder& folder) : preferences(folder / "preferences.json") {}
    ~Services() {
        network.reset();  // what runs ends before what it uses goes
        client.end();
        main.end();
    }
    ViewerConnection::Services viewer() {
        return {
            .transport = *network, .preferences = preferences, .paths = path, .decompressors = decompressors};
    }

    ThreadQueue main{"main"}, client{"velmora.quic.client"};
    JsonPreferenceStore preferences;
    FakePathMonitor path{main};
    AvcodecDecompressorFactory decompressors{AvcodecDecompressor::Parameters{}};
    std::unique_ptr<NetworkStack> network = makeQuicTransportStack();
};

struct BenchViewer::Shared {
    mutable std::mutex mutex;  // guards everything below
    std::condition_variable changed;
    std::vector<Seen> seen;
    std::uint64_t decoded = 0;
    Repairs repairs;
    int clipboards = 0;
    std::optional<HostClock::time_point> first;
    std::string error;

    void add(const DecodedFrame& frame) {
        const auto now = HostClock::now();
        const auto number = ScreenLoad::numberIn(*frame.picture);
        std::lock_guard lock(mutex);
        ++decoded;
        if (!first) {
            first = now;
            changed.notify_all();
        }
        if (frame.isChange && number) seen.push_back({now, *number});
    }
};

BenchViewer::BenchViewer()
    : services_(std::make_unique<Services>(folder_)), shared_(std::make_shared<Shared>()) {}

BenchViewer::~BenchViewer() {
    close();
}

std::optional<std::chrono::duration<double>> BenchViewer::connect(std::uint16_t port,
                                                                  const std::string& password) {
    const Endpoint endpoint = Endpoint::hostPort("127.0.0.1", port);
    ViewerOptions options;
    options.target = RemoteDevices::Target(endpoint);
    options.name = "host";
    options.password = password;
    options.clientName = "benchmark";
    const auto start = HostClock::now();
    services_->main.runSync([&] {
        connection_ = std::make_unique<ViewerConnection>(options, services_->viewer(), services_->main,
                                                         services_->client);
        connection_->onDecodedFrame = [shared = shared_](const DecodedFrame& frame) { shared->add(frame); };
        connection_->onStats = [shared = shared_](const ViewerStats::Snapshot& second) {
            std::lock_guard lock(shared->mutex);
            shared->repairs.requests += second.resendRequests;
            shared->repairs.keyframes += keyframesIn(second.csvRow);
        };
        connection_->onClipboard = [shared = shared_](const Bytes&) {
            std::lock_guard lock(shared->mutex);
            ++shared->clipboards;
        };
        connection_->onEnded = [shared = shared_](const ConnectionError& error) {
            std::lock_guard lock(shared->mutex);
            shared->error = error.title;
            shared->changed.notify_all();
        };
        connection_->start(std::nullopt);
    });
    std::unique_lock lock(shared_->mutex);
    shared_->changed.wait_for(lock, 10s, [&] { return shared_->first || !shared_->error.empty(); });
    if (!shared_->first) {
        fmt::print(stderr, "no picture: {}\n", shared_->error);
        return std::nullopt;
    }
    return *shared_->first - start;
}

void BenchViewer::close() {
    services_->main.runSync([&] {
        if (connection_) connection_->close();
        connection_.reset();
    });
    std::lock_guard lock(shared_->mutex);
    shared_->first.reset();
    shared_->seen.clear();
    shared_->error.clear();
}

std::vector<BenchViewer::Seen> BenchViewer::take() {
    std::lock_guard lock(shared_->mutex);
    return std::exchange(shared_->seen, {});
}

BenchViewer::Repairs BenchViewer::repairs() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->repairs;
}

int BenchViewer::clipboards() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->clipboards;
}

std::uint64_t BenchViewer::framesDecoded() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->decoded;
}

}  // namespace velmora
