#include <gtest/gtest.h>

#include <clocale>
#include <nlohmann/json.hpp>

#include "VelmoraKit/Wire/DisplayRecords.h"
#include "VelmoraKit/Wire/InputRecords.h"
#include "VelmoraKit/Wire/SessionRecords.h"

namespace velmora {
namespace {

using Json = nlohmann::json;

/// A value with every key, its text written by hand, and how many of those keys may be missing.
template <class Record>
struct Sample;

template <>
struct Sample<Hello> {
    static Hello record() {
        return {.name = "Zoë's “Mac”",
                .protocolVersion = 5,
                .display = DisplayRequest{.width = 1440, .height = 900, .scale = 2},
                .deviceID = "A1",
                .sessionToken = "t",
                .password = "012345",
                .audio = false,
                .agent = true};
    }
    static constexpr const char* text = R"({"name":"Zoë's “Mac”","protocolVersion":5,
        "display":{"width":1440,"height":900,"scale":2},"deviceID":"A1","sessionToken":"t","password":"012345",
        "audio":false,"agent":true})";
    static constexpr int optionalKeys = 6;
};

template <>
struct Sample<DisplayRequest> {
    static DisplayRequest record() { return {.width = -1, .height = 9000000000, .scale = 3}; }
    static constexpr const char* text = R"({"width":-1,"height":9000000000,"scale":3})";
    static constexpr int optionalKeys = 0;
};

template <>
struct Sample<ServerDisplay> {
    static ServerDisplay record() {
        return {.id = 4294967295, .name = "DP-1", .width = 2560, .height = 1440};
    }
    static constexpr const char* text = R"({"id":4294967295,"name":"DP-1","width":2560,"height":1440})";
    static constexpr int optionalKeys = 0;
};

template <>
struct Sample<DisplayList> {
    static DisplayList record() {
        return {.displays = {{.id = 1, .name = "a", .width = 2, .height = 3}, {.id = 4, .name = "b"}},
                .virtualAvailable = true,
                .currentID = 4};
    }
    static constexpr const char* text = R"({"displays":[{"id":1,"name":"a","width":2,"height":3},
        {"id":4,"name":"b","width":0,"height":0}],"virtualAvailable":true,"currentID":4})";
    static constexpr int optionalKeys = 1;
};

template <>
struct Sample<DisplaySelection> {
    static DisplaySelection record() {
        return {.displayID = 0, .window = DisplayRequest{.width = 1, .height = 2}};
    }
    static constexpr const char* text = R"({"displayID":0,"window":{"width":1,"height":2,"scale":1}})";
    static constexpr int optionalKeys = 2;
};

template <>
struct Sample<BitrateHint> {
    static BitrateHint record() { return {.maxMbps = -20}; }
    static constexpr const char* text = R"({"maxMbps":-20})";
    static constexpr int optionalKeys = 0;
};

template <>
struct Sample<Denied> {
    static Denied record() { return {.code = "busy", .message = "Another viewer is connected."}; }
    static constexpr const char* text = R"({"code":"busy","message":"Another viewer is connected."})";
    static constexpr int optionalKeys = 1;
};

template <>
struct Sample<InputEvent> {
    static InputEvent record() {
        return {.kind = InputEvent::Kind::scroll,
                .x = 1.5,
                .y = -2,
                .button = 2,
                .clickCount = 3,
                .dx = 0.1,
                .dy = 1e-7,
                .keyCode = 65535,
                .characters = "ß\n",
                .down = true,
                .flags = 18446744073709551615U};
    }
    static constexpr const char* text = R"({"kind":"scroll","x":1.5,"y":-2,"button":2,"clickCount":3,"dx":0.1,
        "dy":1e-7,"keyCode":65535,"characters":"ß\n","down":true,"flags":18446744073709551615})";
    static constexpr int optionalKeys = 1;
};

template <class Record>
struct JsonRecordTest : testing::Test {
    const Json known = Json::parse(Sample<Record>::text);
    static bool decodes(const Json& value) { return Record::decode(bytesOf(value.dump())).ok(); }
};

using JsonRecords = testing::Types<Hello, DisplayRequest, ServerDisplay, DisplayList, DisplaySelection,
                                   BitrateHint, Denied, InputEvent>;
TYPED_TEST_SUITE(JsonRecordTest, JsonRecords);

TYPED_TEST(JsonRecordTest, hasTheseKeysAndValues) {
    EXPECT_EQ(Json::parse(Sample<TypeParam>::record().encode()), this->known);
    const auto decoded = TypeParam::decode(viewOf(Sample<TypeParam>::text));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, Sample<TypeParam>::record());
}

TYPED_TEST(JsonRecordTest, needsEveryKeyButTheOptionalOnes) {
    int optional = 0;
    for (const auto& [key, value] : this->known.items()) {
        Json without = this->known;
        without.erase(key);
        Json null = this->known;
        null[key] = nullptr;
        EXPECT_EQ(this->decodes(without), this->decodes(null)) << key << ": null means absent";
        optional += this->decodes(without);
    }
    EXPECT_EQ(optional, Sample<TypeParam>::optionalKeys);
}

TYPED_TEST(JsonRecordTest, refusesValuesOfAnotherType) {
    for (const auto& [key, value] : this->known.items()) {
        for (const Json& wrong : {Json(true), Json(1.5), Json("1"), Json::array({1}), Json::object()}) {
            const bool same = wrong.type() == value.type() || (wrong.is_number() && value.is_number_float());
            const bool emptyIsEnough = wrong.is_object() && value.is_object();
            // A number that is whole in the sample may belong to a field for any number.
            const bool anyNumber = std::is_same_v<TypeParam, InputEvent> && (key == "y" || key == "x");
            if (same || emptyIsEnough || (anyNumber && wrong.is_number()) || key == "kind") continue;
            Json changed = this->known;
            changed[key] = wrong;
            EXPECT_FALSE(this->decodes(changed)) << key << " = " << wrong;
        }
    }
}

TYPED_TEST(JsonRecordTest, isMalformedWhenCutAndIgnoresUnknownKeys) {
    const std::string text = this->known.dump();
    for (std::size_t length = 0; length < text.size(); ++length)
        EXPECT_FALSE(TypeParam::decode(bytesOf(text.substr(0, length)))) << length;

    Json more = this->known;
    more["later"] = {{"deep", {1, 2, nullptr}}};
    EXPECT_EQ(TypeParam::decode(bytesOf(more.dump())).value(), Sample<TypeParam>::record());
}

TYPED_TEST(JsonRecordTest, refusesWhatIsNoObject) {
    for (const char* text :
         {"", " ", "null", "[]", "7", "\"hello\"", "{}x", "{\"name\":\"\xFF\"}", "not json"}) {
        EXPECT_FALSE(TypeParam::decode(viewOf(text))) << text;
    }
    EXPECT_FALSE(TypeParam::decode(Bytes(100'000, '[')));
}

std::optional<std::int64_t> maxMbpsOf(const std::string& number) {
    const auto hint = BitrateHint::decode(bytesOf("{\"maxMbps\":" + number + "}"));
    return hint ? std::optional(hint->maxMbps) : std::nullopt;
}

TEST(JsonIntegerTest, takesWholeNumbersThatFit) {
    EXPECT_EQ(maxMbpsOf("20.0"), 20);
    EXPECT_EQ(maxMbpsOf("2e1"), 20);
    EXPECT_EQ(maxMbpsOf("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(maxMbpsOf("-9223372036854775808"), INT64_MIN);
    for (const char* bad :
         {"1.5", "9223372036854775808", "-9223372036854777856", "9.3e18", "1e400", "-1e300", "true"})
        EXPECT_EQ(maxMbpsOf(bad), std::nullopt) << bad;
}

TEST(JsonIntegerTest, refusesWhatANarrowFieldCannotHold) {
    const auto decodes = [](const char* key, const Json& value) {
        Json event = Json::parse(InputEvent{}.encode());
        event[key] = value;
        return InputEvent::decode(bytesOf(event.dump())).ok();
    };
    EXPECT_TRUE(decodes("keyCode", 65535));
    EXPECT_FALSE(decodes("keyCode", 65536));
    EXPECT_FALSE(decodes("keyCode", -1));
    EXPECT_FALSE(decodes("flags", -1));
    EXPECT_FALSE(decodes("flags", 18446744073709551616.0));
    EXPECT_TRUE(decodes("x", 0)) << "a double field takes a whole number";
}

TEST(InputEventTest, everyKindHasItsName) {
    const std::vector<std::string> names{"mouseMove", "mouseDown", "mouseUp", "scroll", "key"};
    for (std::size_t i = 0; i < names.size(); ++i) {
        const InputEvent event{.kind = static_cast<InputEvent::Kind>(i)};
        EXPECT_EQ(Json::parse(event.encode())["kind"], names[i]);
        EXPECT_EQ(InputEvent::decode(event.encode()).value(), event);
    }
    Json other = Json::parse(InputEvent{}.encode());
    other["kind"] = "mouseDrag";
    EXPECT_FALSE(InputEvent::decode(bytesOf(other.dump())));
}

TEST(InputEventTest, absentCharactersHaveNoKey) {
    const Json event = Json::parse(InputEvent{}.encode());
    EXPECT_FALSE(event.contains("characters"));
    EXPECT_EQ(event["clickCount"], 1);
    EXPECT_EQ(event.size(), 10U);
}

TEST(JsonTextTest, bytesThatAreNotTextAreReplaced) {
    const Hello decoded = Hello::decode(Hello{.name = "a\xFFz"}.encode()).value();
    EXPECT_EQ(decoded.name, "a\uFFFDz");
}

TEST(JsonTextTest, doublesKeepTheirPointUnderAnyLocale) {
    const std::string before = std::setlocale(LC_NUMERIC, nullptr);
    if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) GTEST_SKIP() << "no de_DE.UTF-8 here";
    const InputEvent event{.x = 1.25};
    const Bytes encoded = event.encode();
    const auto decoded = InputEvent::decode(encoded);
    std::setlocale(LC_NUMERIC, before.c_str());
    EXPECT_NE(textOf(encoded).find("1.25"), std::string::npos);
    EXPECT_EQ(decoded.value(), event);
}

TEST(HostDenialTest, isTheDeniedThatAViewerReads) {
    const auto denied = Denied::decode(HostDenial::encode(HostDenial::locked, "Too many wrong passwords."));
    EXPECT_EQ(denied.value(), (Denied{.code = "locked", .message = "Too many wrong passwords."}));
}

}  // namespace
}  // namespace velmora
