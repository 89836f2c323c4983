#include "Agent/AgentTools.h"

#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <set>

#include "Testing/VirtualQueue.h"
#include "Tests/FakeRemoteMac.h"

namespace velmora {

static void PrintTo(const ToolAnswer& answer, std::ostream* out) {
    for (const auto& piece : answer.content) *out << "[" << piece.text << "]";
    *out << (answer.isError ? " error" : "");
}

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using Kind = InputEvent::Kind;

ToolAnswer words(std::string text) {
    return ToolAnswer::words(std::move(text));
}
ToolAnswer failure(std::string text) {
    return ToolAnswer::failure(std::move(text));
}
ToolAnswer picture(std::string text) {
    return {{ToolContent::picture(ToolContent::Kind::jpeg, {1, 2, 3}), ToolContent::words(std::move(text))}};
}

class AgentToolsTest : public testing::Test {
protected:
    /// What the tool answers, however long it takes; `arguments` in JSON.
    ToolAnswer use(const std::string& name, const std::string& arguments = "{}") {
        std::optional<ToolAnswer> answer;
        tools.call(name, Json::parse(arguments), [&](ToolAnswer given) {
            EXPECT_FALSE(answer) << "answered twice";
            answer = std::move(given);
        });
        time.advanceUntil([&] { return answer.has_value(); }, 1min);
        EXPECT_TRUE(answer) << name << " never answered";
        return answer.value_or(ToolAnswer{});
    }
    std::vector<InputEvent> sentBy(const std::string& name, const std::string& arguments) {
        mac.sent.clear();
        use(name, arguments);
        return mac.sent;
    }

    VirtualTime time;
    VirtualQueue main{time, "main"};
    FakeRemoteMac mac;
    AgentTools tools{mac, main};
};

TEST_F(AgentToolsTest, everyToolOfTheCatalogueIsThereAndTakesWhatItSaysItNeeds) {
    ASSERT_EQ(tools.catalogue().size(), 17u);
    for (const auto& entry : tools.catalogue()) {
        const std::string text = entry.dump();
        EXPECT_TRUE(text.starts_with(R"({"name":")")) << text;
        EXPECT_EQ(entry.size(), 3u);
        const auto& schema = entry.at("inputSchema");
        EXPECT_EQ(schema.at("type"), "object");
        ASSERT_TRUE(schema.at("properties").is_object()) << text;
        ASSERT_TRUE(schema.at("required").is_array()) << text;
        Json arguments = Json::object();
        for (const auto& required : schema.at("required")) {
            const auto key = required.get<std::string>();
            const Json property = schema.at("properties").at(key);
            arguments[key] = property.value("type", "") == "number" ? Json(1) : Json("5");
            if (property.contains("enum")) arguments[key] = property["enum"][0];
        }
        const auto name = entry.at("name").get<std::string>();
        if (name == "connect") arguments["device"] = "Desk";  // one of two, which no schema says
        EXPECT_FALSE(use(name, arguments.dump()).isError) << name;
    }
}

TEST_F(AgentToolsTest, theCatalogueSaysWhatItSays) {
    const auto schemaOf = [&](std::size_t i) { return tools.catalogue()[i]["inputSchema"].dump(); };
    EXPECT_EQ(schemaOf(3), R"({"type":"object","properties":{},"required":[]})");
    EXPECT_EQ(
        schemaOf(4),
        R"({"type":"object","properties":{"region":{"type":"object","description":"Part of the screen to )"
        R"(zoom into","properties":{"x":{"type":"number"},"y":{"type":"number"},"width":{"type":"number"},)"
        R"("height":{"type":"number"}},"required":["x","y","width","height"]}},"required":[]})");
    EXPECT_EQ(
        schemaOf(6),
        R"({"type":"object","properties":{"x":{"type":"number","description":"Pixels from the left of the )"
        R"(screenshot"},"y":{"type":"number","description":"Pixels from the top of the screenshot"},)"
        R"("button":{"type":"string","enum":["left","right","middle"],"default":"left"},)"
        R"("count":{"type":"integer","description":"2 for a double click","default":1}},)"
        R"("required":["x","y"]})");
    EXPECT_EQ(schemaOf(10),
              R"({"type":"object","properties":{"text":{"type":"string"}},"required":["text"]})");
}

TEST_F(AgentToolsTest, onlyAFewToolsDoWithoutAConnection) {
    mac.unreachable = "Desk is offline";
    const std::set<std::string> free{"list_devices", "disconnect", "status"};
    for (const auto& entry : tools.catalogue()) {
        const auto name = entry.at("name").get<std::string>();
        const auto answer = use(name, R"({"device":"Desk"})");
        EXPECT_EQ(answer == failure("Desk is offline"), !free.contains(name)) << name;
    }
    EXPECT_EQ(use("nonsense"), failure("Desk is offline"));
    mac.unreachable.reset();
    EXPECT_EQ(use("nonsense"), failure("Unknown tool nonsense"));
}

TEST_F(AgentToolsTest, badArgumentsAreToldApart) {
    const std::string unknownKey =
        "Unknown key. Use names like return, tab, escape, space, delete, left, f5, a–z, 0–9 with "
        "cmd/ctrl/alt/shift+";
    const std::string notADisplay = R"(id must be a display id from list_displays or "virtual")";
    const struct {
        const char *name, *arguments;
        std::string words;
    } cases[] = {
        {"connect", R"({"device":"","host_id":5})", "Pass device (name or Host ID) or host_id and password"},
        {"screenshot", R"({"region":{}})", "region needs x, y, width and height"},
        {"screenshot", R"({"region":{"x":1,"y":1,"width":0,"height":1}})",
         "region needs x, y, width and height"},
        {"screenshot", R"({"region":{"x":"1","y":1,"width":1,"height":1}})",
         "region needs x, y, width and height"},
        {"click", R"({"x":1})", "Missing x or y"},
        {"click", R"({"x":1,"y":"2"})", "Missing x or y"},
        {"move", "{}", "Missing x or y"},
        {"drag", R"({"x":1,"y":2,"to_x":3})", "Missing coordinates"},
        {"drag", R"({"y":2,"to_x":3,"to_y":3})", "Missing coordinates"},
        {"scroll", R"({"direction":"up"})", "Missing x or y"},
        {"scroll", R"({"x":1,"y":2})", "direction must be up, down, left or right"},
        {"scroll", R"({"x":1,"y":2,"direction":"Up"})", "direction must be up, down, left or right"},
        {"type", R"({"text":5})", "Missing text"},
        {"set_clipboard", "{}", "Missing text"},
        {"key", R"({"combo":"cmd++"})", unknownKey},
        {"key", R"({"combo":1})", unknownKey},
        {"open", R"({"target":""})", "Missing target"},
        {"select_display", "{}", notADisplay},
        {"select_display", R"({"id":"-1"})", notADisplay},
        {"select_display", R"({"id":"4294967296"})", notADisplay},
        {"select_display", R"({"id":1.5})", notADisplay},
        {"select_display", R"({"id":1e300})", notADisplay},
        {"select_display", R"({"id":"Virtual"})", notADisplay},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(use(one.name, one.arguments), failure(one.words)) << one.name << one.arguments;
    }
    EXPECT_TRUE(mac.sent.empty());
    EXPECT_TRUE(mac.selections.empty());
}

TEST_F(AgentToolsTest, connectTellsWhoIsMeant) {
    mac.knownHostID = "111222333";
    using Selection = RemoteMac::Selection;
    const struct {
        const char* arguments;
        Selection expected;
    } cases[] = {
        {R"({"device":"Desk"})", {"Desk", {}, {}}},
        {R"({"host_id":"123456789"})", {"123456789", {}, {}}},
        {R"({"device":"Desk","password":"012345"})", {"Desk", "111222333", "012345"}},
        {R"({"device":"Desk","password":12345})", {"Desk", "111222333", "012345"}},
        {R"({"device":"123 456 789","password":"1"})", {"123 456 789", "123 456 789", "1"}},
        {R"({"device":"Desk","host_id":"9","password":"1"})", {"Desk", "9", "1"}},
        {R"({"device":"Desk","host_id":"123456789","password":null})", {"Desk", {}, {}}},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(use("connect", one.arguments), words("Connected"));
        EXPECT_EQ(mac.selections.back(), one.expected) << one.arguments;
    }
    mac.knownHostID.reset();
    use("connect", R"({"device":"desk.local","password":"123456"})");
    EXPECT_EQ(mac.selections.back(), (Selection{"desk.local", {}, "123456"}));
}

TEST_F(AgentToolsTest, whatIsKnownOfMacsIsToldInWords) {
    EXPECT_EQ(use("list_devices"),
              words("No Macs found on this network and none saved. Use connect with host_id and password."));
    mac.devices = {"Desk · online", "Den"};
    EXPECT_EQ(use("list_devices"), words("Desk · online\nDen"));
    EXPECT_EQ(use("disconnect"), words("Disconnected from the Mac"));
    mac.connected = true;
    mac.name = "Desk";
    EXPECT_EQ(use("disconnect"), words("Disconnected from Desk"));
    EXPECT_EQ(use("disconnect"), words("Wasn't connected"));
    EXPECT_EQ(mac.gates, 0);
}

TEST_F(AgentToolsTest, screenshotsComeWithTheirSize) {
    EXPECT_EQ(use("screenshot", R"({"region":5})"), picture("1568×980 px"));
    EXPECT_EQ(use("screenshot", R"({"region":{"x":-0.5,"y":2.9,"width":30.2,"height":0.5}})"),
              picture("Close-up of 0,2 30×0; click with full-screenshot coordinates"));
    EXPECT_EQ(mac.shots, (std::vector<std::optional<ShotGeometry::Region>>{
                             {}, ShotGeometry::Region{-0.5, 2.9, 30.2, 0.5}}));
    mac.picture.reset();
    EXPECT_EQ(use("screenshot"), failure("No picture yet (or the region is off screen); try again"));
}

TEST_F(AgentToolsTest, waitingHasItsBounds) {
    mac.changes = false;
    EXPECT_EQ(use("wait", R"({"timeout":2.9})"), picture("No change within 2 s"));
    for (const char* arguments : {R"({"timeout":0})", R"({"timeout":500})", R"({"timeout":"5"})", "{}"}) {
        use("wait", arguments);
    }
    std::vector<HostClock::duration> limits;
    for (const auto& wait : mac.waits) limits.push_back(wait.limit);
    EXPECT_EQ(limits, (std::vector<HostClock::duration>{2900ms, 500ms, 60s, 10s, 10s}));
    mac.changes = true;
    EXPECT_EQ(use("wait"), picture("The screen changed"));
    mac.picture.reset();
    EXPECT_EQ(use("wait"), failure("No picture"));
}

TEST_F(AgentToolsTest, clicksLandWhereTheScreenshotShowsThem) {
    const auto events = sentBy("click", R"({"x":784,"y":490,"count":2,"button":"right"})");
    ASSERT_EQ(events.size(), 5u);
    EXPECT_EQ(events[0], (InputEvent{.kind = Kind::mouseMove, .x = 0.5, .y = 0.5}));
    EXPECT_EQ(events[4],
              (InputEvent{.kind = Kind::mouseUp, .x = 0.5, .y = 0.5, .button = 1, .clickCount = 2}));
    EXPECT_EQ(use("click", R"({"x":-3.7,"y":1e30})"),
              words("Clicked at -3, 1000000000000000019884624838656"));
    EXPECT_EQ(mac.sent.back().x, 0);
    EXPECT_EQ(mac.sent.back().y, 1);
    EXPECT_EQ(sentBy("click", R"({"x":1,"y":1,"count":0,"button":"back"})").size(), 3u);
    EXPECT_EQ(mac.sent.back().button, 0);
    EXPECT_LE(sentBy("click", R"({"x":1,"y":1,"count":1e18})").size(), 100u);
    mac.shot = {};
    EXPECT_EQ(sentBy("move", R"({"x":5,"y":5})"), (std::vector<InputEvent>{{.kind = Kind::mouseMove}}));
}

TEST_F(AgentToolsTest, dragsAndScrollsGoTheirWay) {
    EXPECT_EQ(use("drag", R"({"x":0,"y":0,"to_x":784,"to_y":980.9})"), words("Dragged to 784, 980"));
    EXPECT_EQ(mac.sent.back(), (InputEvent{.kind = Kind::mouseUp, .x = 0.5, .y = 1}));
    // Half of the way is left of the screen.
    EXPECT_EQ(sentBy("drag", R"({"x":-784,"y":0,"to_x":784,"to_y":0})").at(2 + 5).x, 0);
    EXPECT_EQ(mac.sent.size(), 15u);
    EXPECT_EQ(mac.sent.at(2 + 8).x, 0.25);
    const struct {
        const char* arguments;
        double dx, dy;
    } cases[] = {
        {R"({"x":1,"y":1,"direction":"up"})", 0, 150},
        {R"({"x":1,"y":1,"direction":"down","amount":2.9})", 0, -100},
        {R"({"x":1,"y":1,"direction":"left","amount":"9"})", 150, 0},
        {R"({"x":1,"y":1,"direction":"right","amount":-1})", 50, 0},
        {R"({"x":1,"y":1,"direction":"up","amount":0})", 0, 0},
    };
    for (const auto& one : cases) {
        const auto events = sentBy("scroll", one.arguments);
        ASSERT_EQ(events.size(), 2u) << one.arguments;
        EXPECT_EQ(events[1].kind, Kind::scroll);
        EXPECT_EQ(events[1].dx, one.dx) << one.arguments;
        EXPECT_EQ(events[1].dy, one.dy) << one.arguments;
    }
    EXPECT_EQ(use("scroll", R"({"x":1,"y":1,"direction":"up","amount":1e300})"), words("Scrolled"));
}

TEST_F(AgentToolsTest, typingAndKeysAreSentAtOnceAndAnsweredWhenTheHostHasActed) {
    EXPECT_EQ(use("type", R"({"text":"e\u0301a\r\n\ud83d\udc68\u200d\ud83d\udc69"})"),
              words("Typed 4 characters"));
    EXPECT_EQ(mac.sent.size(), 8u);
    EXPECT_EQ(use("key", R"({"combo":" Shift+A"})"), words("Pressed  Shift+A"));
    EXPECT_EQ(mac.sent.back(), (InputEvent{.kind = Kind::key, .characters = "a", .flags = 0x20000}));

    bool answered = false;
    tools.call("type", {{"text", ""}}, [&](const ToolAnswer&) { answered = true; });
    time.advanceBy(299ms);
    EXPECT_FALSE(answered);
    time.advanceBy(1ms);
    EXPECT_TRUE(answered);
}

TEST_F(AgentToolsTest, openingGoesThroughTheLauncherStepByStep) {
    std::optional<ToolAnswer> answer;
    tools.call("open", {{"target", "ab"}}, [&](ToolAnswer given) { answer = std::move(given); });
    EXPECT_EQ(mac.sent.size(), 2u);
    EXPECT_EQ(mac.sent[0], (InputEvent{.kind = Kind::key, .keyCode = 49, .down = true, .flags = 0x100000}));
    time.advanceBy(599ms);
    EXPECT_EQ(mac.sent.size(), 2u);
    time.advanceBy(1ms);
    EXPECT_EQ(mac.sent.size(), 6u);
    time.advanceBy(799ms);
    EXPECT_EQ(mac.sent.size(), 6u);
    time.advanceBy(1ms);
    EXPECT_EQ(mac.sent.size(), 8u);
    EXPECT_EQ(mac.sent[6].keyCode, 36);
    EXPECT_EQ(answer, picture("Opened ab through Spotlight"));
    EXPECT_EQ(mac.waits.back().limit, 8s);
    EXPECT_EQ(mac.waits.back().settle, 800ms);
}

TEST_F(AgentToolsTest, theClipboardIsReadByItsKind) {
    EXPECT_EQ(use("get_clipboard"), words("Nothing copied on the remote Mac yet in this session. Select "
                                          "something there and press cmd+c first."));
    mac.clipboard = ClipboardContent{ClipboardContent::Kind::text, {'a', 0xFF}};
    EXPECT_EQ(use("get_clipboard"), words("a\xEF\xBF\xBD"));
    mac.clipboard = ClipboardContent{ClipboardContent::Kind::png, {9}};
    EXPECT_EQ(use("get_clipboard"), (ToolAnswer{{ToolContent::picture(ToolContent::Kind::png, {9})}}));
    mac.clipboard = ClipboardContent{ClipboardContent::Kind::files, {}};
    EXPECT_EQ(use("get_clipboard"), words("The remote clipboard holds files (not readable as text)."));
    EXPECT_EQ(use("set_clipboard", R"({"text":"é\n"})"),
              words("The remote clipboard holds 2 characters; press cmd+v there to paste"));
    EXPECT_EQ(mac.clipboards, std::vector<std::string>{"é\n"});
}

TEST_F(AgentToolsTest, displaysAreListedAndChosen) {
    EXPECT_EQ(use("list_displays"), words("The remote Mac hasn't sent its displays yet; try again"));
    mac.displays = DisplayList{{{3, "Left", 800, 600}, {7, "Right", 1920, 1080}}, true, 7};
    EXPECT_EQ(use("list_displays"), words("virtual: a virtual display the size Velmora mcp uses\n3: Left "
                                          "800×600\n7: Right 1920×1080 (current)"));
    mac.displays->currentID.reset();
    EXPECT_TRUE(use("list_displays")
                    .content[0]
                    .text.starts_with("virtual: a virtual display the size Velmora mcp uses (current)\n"));
    EXPECT_EQ(use("select_display", R"({"id":0})"),
              picture("Showing display 0; coordinates now refer to it"));
    EXPECT_EQ(use("select_display", R"({"id":"7"})"),
              picture("Showing display 7; coordinates now refer to it"));
    EXPECT_EQ(use("select_display", R"({"id":"virtual"})"),
              picture("Showing display virtual; coordinates now refer to it"));
    EXPECT_EQ(mac.selectedDisplays, (std::vector<std::optional<std::uint32_t>>{0, 7, std::nullopt}));
}

}  // namespace
}  // namespace velmora
