#include "Benchmarks/Rendezvous/Introductions.h"

#include <chrono>
#include <map>
#include <memory>
#include <utility>

#include "Benchmarks/Rendezvous/HostCrowd.h"
#include "VelmoraKit/Wire/RendezvousMessages.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Connection = SocketLoop::Connection;

constexpr auto patience = 5s;

double millisecondsSince(HostClock::time_point start) {
    return std::chrono::duration<double, std::milli>(HostClock::now() - start).count();
}

class Viewers {
public:
    explicit Viewers(const IntroductionOptions& options) : options_(options) {}

    IntroductionFigures run() {
        const auto start = HostClock::now();
        const std::chrono::duration<double> length(options_.seconds);
        std::uint32_t begun = 0;
        std::chrono::duration<double> elapsed{};
        while ((elapsed = HostClock::now() - start) < length) {
            const auto due = options_.perSecond
                                 ? static_cast<std::uint32_t>(elapsed.count() * *options_.perSecond) + 1
                                 : begun + options_.atATime - static_cast<std::uint32_t>(viewers_.size());
            while (begun < due) begin(begun++);
            loop_.runFor(1ms, [this] { return !options_.perSecond && viewers_.size() < options_.atATime; });
        }
        figures_.perSecond = figures_.made / elapsed.count();
        loop_.runFor(patience, [this] { return viewers_.empty(); });
        figures_.failed += static_cast<std::uint32_t>(viewers_.size());
        return std::move(figures_);
    }

private:
    struct Viewer {
        std::unique_ptr<Connection> connection;
        HostClock::time_point since = HostClock::now();
    };

    void begin(std::uint32_t number) {
        Viewer& viewer = viewers_[number];
        viewer.connection = std::make_unique<Connection>(loop_, 1'000'000 + number, options_.port,
                                                         Connection::Purpose::webSocket);
        viewer.connection->onOpen = [this, &viewer, number] {
            figures_.connected.add(millisecondsSince(std::exchange(viewer.since, HostClock::now())));
            viewer.connection->sendText(encode(rendezvous::FromClient{
                rendezvous::Join{.id = HostCrowd::idOf(number % options_.hosts),
                                 .password = HostCrowd::password,
                                 .clientName = "Load",
                                 .deviceId = "2B3F5C1E-0000-4000-8000-" + HostCrowd::idOf(number)}}));
        };
        viewer.connection->onText = [this, number](std::string_view text) { hear(number, text); };
        viewer.connection->onClosed = [this, number] {
            ++figures_.failed;
            end(number);
        };
    }

    void hear(std::uint32_t number, std::string_view text) {
        const auto message = rendezvous::decodeToClient(text);
        if (message && std::holds_alternative<rendezvous::JoinPending>(*message)) return;
        Viewer& viewer = viewers_.at(number);
        if (message && std::holds_alternative<rendezvous::Accepted>(*message)) {
            ++figures_.made;
            figures_.relayed += std::get<rendezvous::Accepted>(*message).relay.has_value();
            figures_.introduced.add(millisecondsSince(viewer.since));
            viewer.connection->onClosed = nullptr;
            viewer.connection->sendText(encode(rendezvous::FromClient{rendezvous::Hangup{}}));
        } else {
            ++figures_.failed;
        }
        end(number);
    }

    void end(std::uint32_t number) {
        auto viewer = viewers_.extract(number);
        if (!viewer.empty()) loop_.retire(std::move(viewer.mapped().connection));
    }

    const IntroductionOptions options_;
    IntroductionFigures figures_;
    SocketLoop loop_;
    std::map<std::uint32_t, Viewer> viewers_;
};

}  // namespace

IntroductionFigures introduce(const IntroductionOptions& options) {
    return Viewers(options).run();
}

}  // namespace velmora
