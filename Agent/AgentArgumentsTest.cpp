#include "Agent/AgentArguments.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

std::optional<DisplayRequest> displayOf(const std::vector<std::string>& arguments) {
    const auto parsed = AgentArguments::parse(arguments);
    EXPECT_TRUE(parsed);
    return parsed ? parsed->display : std::nullopt;
}

TEST(AgentArgumentsTest, optionsAreTakenInTurn) {
    EXPECT_EQ(AgentArguments::parse({})->deviceName, std::nullopt);
    EXPECT_EQ(displayOf({}), (DisplayRequest{1440, 900, 1}));
    EXPECT_EQ(AgentArguments::parse({"--device", "a", "--device", "--size"})->deviceName, "--size");
    EXPECT_EQ(displayOf({"--size", "800x600", "--own-display"}), std::nullopt);
    EXPECT_EQ(displayOf({"--own-display", "--size", "800x600"}), (DisplayRequest{800, 600, 1}));
    EXPECT_EQ(AgentArguments::parse({"--device", "a", "--device"})->deviceName, std::nullopt);
}

TEST(AgentArgumentsTest, aSizeIsAnyTwoIntegers) {
    EXPECT_EQ(displayOf({"--size", "1280xx720x?"}), (DisplayRequest{1280, 720, 1}));
    EXPECT_EQ(displayOf({"--size", "-1x+2"}), (DisplayRequest{-1, 2, 1}));
    for (const char* size :
         {"", "x", "1280", "1280x", "1x2x3", "1280 720", "1.5x2", "99999999999999999999x1"}) {
        EXPECT_EQ(AgentArguments::parse({"--size", size}), std::nullopt) << size;
    }
}

TEST(AgentArgumentsTest, anythingElseIsRefused) {
    EXPECT_EQ(AgentArguments::parse({"--size"}), std::nullopt);
    EXPECT_EQ(AgentArguments::parse({"--help"}), std::nullopt);
    EXPECT_EQ(AgentArguments::parse({"desk"}), std::nullopt);
}

}  // namespace
}  // namespace velmora
