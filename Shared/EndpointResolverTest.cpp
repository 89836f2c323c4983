#include "Shared/EndpointResolver.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Testing/FakeServiceDiscovery.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

TEST(EndpointResolverTest, aServiceIsWhereItIsNowOrNowhere) {
    VirtualTime time;
    VirtualQueue main{time, "main"};
    FakeServiceDiscovery network;
    auto resolver = std::make_unique<EndpointResolver>(network, main);
    std::vector<std::string> told;
    const auto ask = [&](const char* name) {
        resolver->resolve(Endpoint::service(name, "_velmora._udp", "local"), [&](Result<Endpoint> found) {
            told.push_back(found ? found->text() : found.error().text);
        });
    };
    const auto published =
        network.publish({.name = "Desk", .type = "_velmora._udp", .port = 47272}, main, nullptr);
    ask("Desk");
    ask("Attic");
    time.advanceBy(4s);
    EXPECT_EQ(told, std::vector<std::string>{"192.0.2.7:47272"});
    time.advanceBy(2s);
    EXPECT_EQ(told.at(1), "Attic._velmora._udp.local: the service was not found");

    ask("Desk");
    resolver.reset();
    time.advanceBy(6s);
    EXPECT_EQ(told.size(), 2u);
}

}  // namespace
}  // namespace velmora
