// The rendezvous service between clients and other nodes that say anything at all. Each line of the input is
// one event, by its first character: "0" to "7" a message of that socket (opened when there is none), "x" and
// a digit a socket's end, "n" a message of another node, "r" a request of one, "d" a device list's question,
// "p" and a digit a pong, "t" time that passes. What clients are told must be messages that they understand.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string_view>

#include "Rendezvous/FakeClientPort.h"
#include "Rendezvous/FakeNodeBus.h"
#include "Rendezvous/MeetingPoint.h"
#include "Testing/VirtualQueue.h"

using namespace velmora;

namespace {

class Scene {
public:
    void play(std::string_view event) {
        if (event.empty()) return;
        const char kind = event.front();
        const std::string_view rest = event.substr(1);
        const char which = rest.empty() ? '0' : rest.front();
        switch (kind) {
            case 'x':
                return close(which);
            case 'n':
                return link_.onMessage(std::string(rest));
            case 'r':
                return link_.onRequest(HostNumber{123456789}, std::string(rest), [](const auto&) {});
            case 'd':
                return point_.devices(*ClientAddress::parse("192.0.2.1"), rest, [](const auto&) {});
            case 'p':
                return point_.answeredProbe(socketOf(which)->id());
            case 't':
                return time_.advanceBy(std::chrono::seconds(rest.size() % 16));
            default:
                if (kind < '0' || kind > '7') return;
                point_.received(socketOf(kind)->id(), rest);
                time_.settle();
        }
    }
    void check() {
        for (const auto& [name, socket] : sockets_) check(*socket);
    }

private:
    std::shared_ptr<FakeClientPort> socketOf(char name) {
        auto& socket = sockets_[name];
        if (!socket) {
            const char address[] = {'1', '9', '2', '.', '0', '.', '2', '.', name, '\0'};
            socket = std::make_shared<FakeClientPort>(++opened_,
                                                      name >= '0' && name <= '9' ? address : "192.0.2.9");
            point_.opened(socket);
        }
        return socket;
    }
    void close(char name) {
        const auto found = sockets_.find(name);
        if (found == sockets_.end()) return;
        check(*found->second);
        point_.closed(found->second->id());
        sockets_.erase(found);
    }
    static void check(const FakeClientPort& socket) {
        for (const std::string& text : socket.received) {
            if (rendezvous::decodeToClient(text)) continue;
            std::fputs("a client was told what is no message\n", stderr);
            std::abort();
        }
    }

    VirtualTime time_;
    VirtualQueue queue_{time_};
    FakeNodeBus bus_{queue_};
    FakeNodeBus::Link link_{bus_, "one"};
    SeenHosts seen_;
    Metrics metrics_;
    MeetingPoint point_{{.queue = queue_,
                         .link = link_,
                         .seen = seen_,
                         .metrics = metrics_,
                         .clock = [] { return SeenHosts::Time{std::chrono::seconds(1'800'000'000)}; },
                         .relay =
                             [](HostNumber) {
                                 return rendezvous::Relay{"relay.example", 3479, "pair"};
                             }},
                        {}};
    std::map<char, std::shared_ptr<FakeClientPort>> sockets_;
    std::uint64_t opened_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    Scene scene;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        scene.play(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    scene.check();
    return 0;
}
