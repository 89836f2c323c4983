#include "Agent/ToolCatalogue.h"

#include <initializer_list>
#include <nlohmann/json.hpp>

namespace velmora {

namespace {

using Json = nlohmann::ordered_json;

Json tool(const char* name, const char* description, Json properties = Json::object(),
          std::initializer_list<const char*> required = {}) {
    Json needed = Json::array();
    for (const char* key : required) needed.push_back(key);
    return {{"name", name},
            {"description", description},
            {"inputSchema",
             {{"type", "object"}, {"properties", std::move(properties)}, {"required", std::move(needed)}}}};
}

Json described(const char* type, const char* description) {
    return {{"type", type}, {"description", description}};
}

Json number() {
    return {{"type", "number"}};
}

Json string() {
    return {{"type", "string"}};
}

Json oneOf(std::initializer_list<const char*> values) {
    Json property = string();
    for (const char* value : values) property["enum"].push_back(value);
    return property;
}

Json withDefault(Json property, Json value) {
    property["default"] = std::move(value);
    return property;
}

/// A place on the screenshot, and what else a tool takes.
Json point(const Json& more = Json::object()) {
    Json properties = {{"x", described("number", "Pixels from the left of the screenshot")},
                       {"y", described("number", "Pixels from the top of the screenshot")}};
    properties.update(more);
    return properties;
}

Json region() {
    Json property = described("object", "Part of the screen to zoom into");
    property["properties"] = {{"x", number()}, {"y", number()}, {"width", number()}, {"height", number()}};
    property["required"] = {"x", "y", "width", "height"};
    return property;
}

Json lookingTools() {
    return {
        tool("list_devices",
             "Lists the Macs Velmora knows (saved and found on the local network) with Host ID, online state "
             "and "
             "whether a password is saved."),
        tool("connect",
             "Connects to a Mac by its name or Host ID. A Mac without a saved password needs `password` (6 "
             "digits, shown in Velmora's menu on it); a new Mac needs `host_id` and `password`. Both are "
             "saved "
             "for next time.",
             {{"device", described("string", "Name or Host ID of a Mac from list_devices")},
              {"host_id", described("string", "9-digit Host ID (to add a Mac)")},
              {"password", described("string", "6-digit password of that Mac")}}),
        tool("disconnect",
             "Ends the connection so the Mac is free for other viewers. The next tool call connects again."),
        tool("status", "Connection state and screen size."),
        tool("screenshot",
             "Current screen of the remote Mac as a JPEG. Coordinates for the other tools are pixels in the "
             "full "
             "screenshot. With a region (in those coordinates) only that part, at up to full resolution, to "
             "read small text.",
             {{"region", region()}}),
        tool("wait",
             "Waits until the screen changes and settles (e.g. an app launched, a page loaded), or until the "
             "timeout. Returns a screenshot.",
             {{"timeout", described("number", "Seconds, default 10, at most 60")}}),
    };
}

Json actingTools() {
    return {
        tool("click", "Moves the pointer and clicks.",
             point({{"button", withDefault(oneOf({"left", "right", "middle"}), "left")},
                    {"count", withDefault(described("integer", "2 for a double click"), 1)}}),
             {"x", "y"}),
        tool("move", "Moves the pointer (hover).", point(), {"x", "y"}),
        tool("drag", "Presses the left button at (x, y), moves to (to_x, to_y) and releases.",
             point({{"to_x", number()}, {"to_y", number()}}), {"x", "y", "to_x", "to_y"}),
        tool("scroll", "Scrolls at (x, y).",
             point({{"direction", oneOf({"up", "down", "left", "right"})},
                    {"amount", withDefault(described("integer", "Wheel clicks (about 50 px each)"), 3)}}),
             {"x", "y", "direction"}),
        tool("type", "Types text on the remote Mac (newlines press Return).", {{"text", string()}}, {"text"}),
        tool(
            "key",
            R"(Presses a key or shortcut, e.g. "return", "escape", "cmd+space", "cmd+shift+4", "ctrl+left", )"
            R"("f5".)",
            {{"combo", string()}}, {"combo"}),
        tool(
            "open",
            R"(Opens an app, file or URL on the remote Mac through Spotlight (e.g. "Safari", "System Settings", )"
            R"("https://example.com"), then waits for the screen to settle and returns a screenshot.)",
            {{"target", string()}}, {"target"}),
        tool("get_clipboard",
             "Text last copied on the remote Mac during this session (copy something there first, e.g. key "
             "cmd+c)."),
        tool("set_clipboard",
             "Puts text on the remote Mac's clipboard, e.g. before pasting with key cmd+v (faster than type "
             "for "
             "long text).",
             {{"text", string()}}, {"text"}),
        tool("list_displays", "The remote Mac's displays; the current one is marked."),
        tool("select_display",
             R"(Shows another display of the remote Mac (id from list_displays), or "virtual" for a virtual )"
             R"(display of the size Velmora mcp uses.)",
             {{"id", string()}}, {"id"}),
    };
}

}  // namespace

const Json& toolCatalogue() {
    static const Json catalogue = [] {
        Json tools = lookingTools();
        for (Json& acting : actingTools()) tools.push_back(std::move(acting));
        return tools;
    }();
    return catalogue;
}

}  // namespace velmora
