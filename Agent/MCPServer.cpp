#include "Agent/MCPServer.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "VelmoraKit/Core/Base64.h"
#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;  // what is written keeps the order of its keys

// The codes of JSON-RPC 2.0, section 5.1.
constexpr int parseError = -32700, methodNotFound = -32601;

constexpr std::array<std::string_view, 3> protocolVersions{"2025-06-18", "2025-03-26", "2024-11-05"};
constexpr std::string_view instructions =
    "Controls a remote Mac through Velmora. Take a screenshot first; all coordinates are pixels in the "
    "latest "
    "screenshot.";

bool nestsDeeperThan(std::string_view text, std::size_t limit) {
    std::size_t depth = 0;
    bool isQuoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (isQuoted && c == '\\') ++i;
        if (c == '"') isQuoted = !isQuoted;
        if (isQuoted) continue;
        if ((c == '{' || c == '[') && ++depth > limit) return true;
        if ((c == '}' || c == ']') && depth > 0) --depth;
    }
    return false;
}

/// The member if it is a string, else the empty one.
std::string stringIn(const Json& object, const char* key) {
    const auto member = object.find(key);
    return member != object.end() && member->is_string() ? member->get<std::string>() : std::string();
}

/// The member if it is an object, else an empty one.
Json objectIn(const Json& object, const char* key) {
    const auto member = object.find(key);
    return member != object.end() && member->is_object() ? *member : Json::object();
}

OrderedJson errorReply(const OrderedJson& id, int code, const std::string& message) {
    return {{"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", message}}}};
}

std::string textOf(const OrderedJson& json) {
    return json.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
}

/// A picture may be a megabyte of base64, in which nothing needs escaping: it is not looked at again.
std::string blockOf(const ToolContent& content) {
    if (content.kind == ToolContent::Kind::text) return textOf({{"type", "text"}, {"text", content.text}});
    const char* type = content.kind == ToolContent::Kind::png ? "image/png" : "image/jpeg";
    return fmt::format(R"({{"type":"image","data":"{}","mimeType":"{}"}})", base64Of(content.image), type);
}

std::string resultOf(const ToolAnswer& answer) {
    std::vector<std::string> blocks;
    for (const ToolContent& piece : answer.content) blocks.push_back(blockOf(piece));
    return fmt::format(R"({{"content":[{}],"isError":{}}})", fmt::join(blocks, ","), answer.isError);
}

}  // namespace

MCPServer::MCPServer(ToolBox& tools, Queue& main, std::function<void(std::string line)> writeLine,
                     Parameters parameters)
    : tools_(tools), main_(main), writeLine_(std::move(writeLine)), parameters_(std::move(parameters)) {}

void MCPServer::takeLine(std::string_view line) {
    assertOn(main_);
    if (line.empty()) return;
    const std::string text = repairedUtf8(viewOf(line));
    Json message;
    if (!nestsDeeperThan(text, parameters_.deepestNesting)) {
        message = Json::parse(text, nullptr, /*allow_exceptions=*/false);
    }
    if (!message.is_object()) return write(errorReply(nullptr, parseError, "Parse error"));
    handle(message);
}

void MCPServer::endInput() {
    assertOn(main_);
    tools_.disconnect();
    farewell_ = main_.after(parameters_.farewell, [this] {
        if (const auto notify = onFinished) notify();
    });
}

void MCPServer::handle(const Json& message) {
    const auto named = message.find("method");
    if (named == message.end() || !named->is_string()) return;
    const auto method = named->get<std::string>();
    const Json params = objectIn(message, "params");

    if (method == "initialize") return reply(message, textOf(initializeResult(params)));
    if (method == "ping") return reply(message, "{}");
    if (method == "tools/list") return reply(message, textOf({{"tools", tools_.catalogue()}}));
    if (method == "tools/call") {
        return tools_.call(stringIn(params, "name"), objectIn(params, "arguments"), answerTo(message));
    }
    if (const auto id = message.find("id"); id != message.end())
        write(errorReply(*id, methodNotFound, "Method not found: " + method));
}

OrderedJson MCPServer::initializeResult(const Json& params) const {
    const std::string asked = stringIn(params, "protocolVersion");
    const bool isKnown = std::ranges::find(protocolVersions, asked) != protocolVersions.end();
    return {{"protocolVersion", isKnown ? asked : std::string(protocolVersions.front())},
            {"capabilities", {{"tools", OrderedJson::object()}}},
            {"serverInfo", {{"name", "velmora"}, {"version", parameters_.version}}},
            {"instructions", instructions}};
}

ToolBox::Done MCPServer::answerTo(const Json& message) {
    Json envelope = Json::object();
    if (const auto id = message.find("id"); id != message.end()) envelope["id"] = *id;
    return liveness_.guard([this, envelope = std::move(envelope)](const ToolAnswer& answer) {
        reply(envelope, resultOf(answer));
    });
}

/// To a request; a notification, which has no id, gets none. A null is an id.
void MCPServer::reply(const Json& message, const std::string& result) {
    const auto id = message.find("id");
    if (id == message.end()) return;
    writeLine_(fmt::format(R"({{"jsonrpc":"2.0","id":{},"result":{}}})", textOf(OrderedJson(*id)), result));
}

void MCPServer::write(const OrderedJson& reply) {
    writeLine_(textOf(reply));
}

}  // namespace velmora
