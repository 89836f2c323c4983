#include "Rendezvous/Options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Rendezvous/ClientAddress.h"

namespace velmora {
namespace {

Result<Options> parse(const std::vector<const char*>& arguments) {
    return parseOptions(arguments);
}

TEST(OptionsTest, whatIsNotUnderstoodIsNamed) {
    const struct {
        std::vector<const char*> arguments;
        const char* words;
    } cases[] = {
        {{"--port", "1"}, "unknown argument: --port"},
        {{"8080"}, "unknown argument: 8080"},
        {{"--listen"}, "--listen needs ADDRESS:PORT"},
        {{"--udp-port", "70000"}, "--udp-port: 70000 is no PORT"},
        {{"--udp-port=3478x"}, "--udp-port: 3478x is no PORT"},
        {{"--relay-ports", "5000-4000"}, "--relay-ports: 5000-4000 is no FIRST-LAST"},
        {{"--relay-ports", "1-65535"}, "--relay-ports: 1-65535 is no FIRST-LAST"},
        {{"--proxy", "example.org"}, "--proxy: example.org is no ADDRESS"},
        {{"--no-udp=yes"}, "--no-udp takes no value"},
        {{"--key", "key.pem"}, "--certificate and --key go together"},
    };
    for (const auto& [arguments, words] : cases) {
        const auto options = parse(arguments);
        ASSERT_FALSE(options) << words;
        EXPECT_EQ(options.error().text, words);
    }
}

TEST(OptionsTest, bothWaysOfGivingAValueAreTaken) {
    const auto options = parse({"--listen=127.0.0.1:1", "--listen", "[::1]:2", "--relay-ports", "65534-65535",
                                "--proxy", "::ffff:192.0.2.1", "--no-udp"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->listen, (std::vector<std::string>{"127.0.0.1:1", "[::1]:2"}));
    EXPECT_EQ(options->relayPorts, (std::vector<std::uint16_t>{65534, 65535}));
    EXPECT_EQ(options->proxies, std::vector<std::string>{"192.0.2.1"});
    EXPECT_FALSE(options->udp);
}

TEST(ClientAddressTest, limitsCountAHomeNetworkAsOne) {
    const auto networkOf = [](const char* text) {
        const auto address = ClientAddress::parse(text);
        return address ? address->network : "none";
    };
    EXPECT_EQ(networkOf("192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(networkOf("::ffff:192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(networkOf("2001:db8:1:2:3:4:5:6"), "2001:db8:1:2::/64");
    for (const auto* text : {"", "localhost", "192.0.2", "1.2.3.4:5", "2001:db8::1%eth0"}) {
        EXPECT_EQ(networkOf(text), "none") << text;
    }
}

}  // namespace
}  // namespace velmora
