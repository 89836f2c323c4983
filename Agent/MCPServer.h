#pragma once

#include <chrono>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "Agent/ToolBox.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The Model Context Protocol towards an agent: JSON-RPC 2.0 requests come in, one object to a line, and
/// answers go out, one to a line. Requests are taken up as they come; several tools may run at once, and each
/// answers when it is done. Lives on the main queue.
class MCPServer {
public:
    struct Parameters {
        std::chrono::milliseconds farewell{300};  // for a connection's goodbye to leave
        std::string version = "dev";
        std::size_t deepestNesting = 512;  // of a request, which may be copied and written level by level
    };
    /// `tools` and `main` outlive us. `writeLine` takes a whole answer without its line feed and must not
    /// hold up the main queue.
    MCPServer(ToolBox& tools, Queue& main, std::function<void(std::string line)> writeLine,
              Parameters parameters);

    /// The process may end: the input has ended, and the farewell is over.
    std::function<void()> onFinished;

    /// A line of the input without its line feed. One that is no request is answered as such.
    void takeLine(std::string_view line);
    void endInput();

private:
    void handle(const nlohmann::json& message);
    nlohmann::ordered_json initializeResult(const nlohmann::json& params) const;
    /// Answers a tool when it is done.
    ToolBox::Done answerTo(const nlohmann::json& message);
    void write(const nlohmann::ordered_json& reply);
    void reply(const nlohmann::json& message, const std::string& result);  // as JSON

    ToolBox& tools_;
    Queue& main_;
    const std::function<void(std::string line)> writeLine_;
    const Parameters parameters_;
    TimerToken farewell_;
    Liveness liveness_;
};

}  // namespace velmora
