#include "Tools/Look/LookOptions.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

std::string linesOf(const LookOptions& options) {
    std::string lines;
    for (const auto& step : options.steps) lines += step.line + " ";
    return lines;
}

TEST(LookOptionsTest, stepsHaveAnOrderOfTheirOwn) {
    const auto options = LookOptions::parse(
        {"--png", "a.png", "host:1", "--seconds", "2.5", "--password", "012345", "--type", "x", "--stats"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->address, "host:1");
    EXPECT_EQ(options->password, "012345");
    EXPECT_TRUE(options->stats);
    EXPECT_EQ(linesOf(*options), "type wait png ");
    EXPECT_EQ(linesOf(*LookOptions::parse({"host", "--png", "a.png"})), "settle png ");
    EXPECT_EQ(linesOf(*LookOptions::parse({"host", "--script", "-"})), "");
}

TEST(LookOptionsTest, aHostIsAnIdAnAddressOrAService) {
    const auto placeOf = [](const std::vector<std::string>& words) {
        const auto options = LookOptions::parse(words);
        if (!options) return options.error().text;
        const auto target = options->target();
        if (const auto* id = std::get_if<RemoteDevices::HostId>(&target))
            return "ID " + id->digits + ", password " + options->password.value_or("");
        const Endpoint endpoint = std::get<Endpoint>(target);
        return (endpoint.kind == Endpoint::Kind::service ? "service " : "") + endpoint.text();
    };
    EXPECT_EQ(placeOf({"852290732", "--password", "858 201"}), "ID 852290732, password 858201");
    EXPECT_EQ(placeOf({"852", "290", "--password", "1", "732"}), "ID 852290732, password 1");
    EXPECT_EQ(LookOptions::parse({"852290732"})->address, "852 290 732");
    EXPECT_EQ(placeOf({"852 290 73"}), "852 290 73:47272");
    EXPECT_EQ(placeOf({"852", "290", "7321"}), "one address is enough, not also “7321”");
    EXPECT_EQ(placeOf({"a.example:99"}), "a.example:99");
    EXPECT_EQ(placeOf({"My Desk._velmora._udp.local."}), "service My Desk._velmora._udp.local.");
}

TEST(LookOptionsTest, sizesMayHaveAScale) {
    EXPECT_EQ(LookOptions::parse({"host", "--size", "1440x900"})->size, (DisplayRequest{1440, 900, 1}));
    EXPECT_EQ(LookOptions::parse({"host", "--size", "1440x900@2"})->size, (DisplayRequest{1440, 900, 2}));
    for (const char* size :
         {"1440", "x900", "1440x", "1440x900@", "0x900", "1440x900x2", "-1x5", "70000x1"}) {
        EXPECT_FALSE(LookOptions::parse({"host", "--size", size})) << size;
    }
}

TEST(LookOptionsTest, whatIsNotUnderstoodIsSaid) {
    EXPECT_FALSE(LookOptions::parse({}));
    EXPECT_FALSE(LookOptions::parse({"a", "b"}));
    EXPECT_EQ(LookOptions::parse({"a", "--what", "b"}).error().text, "there is no option --what");
    EXPECT_EQ(LookOptions::parse({"a", "--png"}).error().text, "--png needs a value");
    EXPECT_FALSE(LookOptions::parse({"a", "--seconds", "soon"}));
}

}  // namespace
}  // namespace velmora
