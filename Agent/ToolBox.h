#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// One piece of what a tool answers.
struct ToolContent {
    enum class Kind { text, jpeg, png };
    Kind kind = Kind::text;
    std::string text;  // UTF-8; repaired on its way out
    Bytes image;       // of a picture: the file

    static ToolContent words(std::string text) { return {.text = std::move(text)}; }
    static ToolContent picture(Kind kind, Bytes file) { return {.kind = kind, .image = std::move(file)}; }
    bool operator==(const ToolContent&) const = default;
};

struct ToolAnswer {
    std::vector<ToolContent> content;
    bool isError = false;

    static ToolAnswer words(std::string text) { return {{ToolContent::words(std::move(text))}}; }
    static ToolAnswer failure(std::string text) { return {{ToolContent::words(std::move(text))}, true}; }
    bool operator==(const ToolAnswer&) const = default;
};

/// What an agent may call, as the protocol sees it. Lives on the main queue.
class ToolBox {
public:
    using Done = UniqueFunction<void(ToolAnswer)>;

    virtual ~ToolBox() = default;
    /// The array of descriptions that the agent is given.
    virtual const nlohmann::ordered_json& catalogue() const = 0;
    /// Calls the tool of that name, which need not exist; `arguments` is an object. `done` is called once, at
    /// once or later, unless we are destroyed before.
    virtual void call(const std::string& name, const nlohmann::json& arguments, Done done) = 0;
    /// The agent has gone.
    virtual void disconnect() = 0;
};

}  // namespace velmora
