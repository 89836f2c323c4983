#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Agent/RemoteMac.h"
#include "Agent/ToolBox.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// What the tools of the catalogue do: they check what the agent wrote, act on the Mac, and answer in words
/// and pictures. Whatever goes wrong is an answer too. Lives on the main queue.
class AgentTools final : public ToolBox {
public:
    struct Parameters {
        std::chrono::milliseconds connectLimit{20000};
        std::chrono::milliseconds actingTime{300};        // for the host to act on what was sent
        std::chrono::milliseconds arrivalTime{100};       // for a picture that was just caused
        std::chrono::milliseconds launcherAppears{600};   // after its shortcut
        std::chrono::milliseconds launcherSearches{800};  // after the last character
    };
    /// Both outlive us.
    AgentTools(RemoteMac& mac, Queue& main, const Parameters& parameters);
    AgentTools(RemoteMac& mac, Queue& main) : AgentTools(mac, main, Parameters{}) {}

    const nlohmann::ordered_json& catalogue() const override;
    void call(const std::string& name, const nlohmann::json& arguments, Done done) override;
    void disconnect() override { mac_.disconnect(); }

private:
    using Arguments = nlohmann::json;
    using Tool = void (AgentTools::*)(const Arguments&, Done);
    struct Entry {
        const char* name;
        Tool tool;
        bool needsPicture = true;  // of the Mac; else it is called without a connection
    };
    static const std::vector<Entry>& entries();

    void listDevices(const Arguments&, Done done);
    void connect(const Arguments& arguments, Done done);
    void disconnectMac(const Arguments&, Done done);
    void status(const Arguments&, Done done);
    void screenshot(const Arguments& arguments, Done done);
    void wait(const Arguments& arguments, Done done);
    void click(const Arguments& arguments, Done done);
    void move(const Arguments& arguments, Done done);
    void drag(const Arguments& arguments, Done done);
    void scroll(const Arguments& arguments, Done done);
    void type(const Arguments& arguments, Done done);
    void key(const Arguments& arguments, Done done);
    void open(const Arguments& arguments, Done done);
    void getClipboard(const Arguments&, Done done);
    void setClipboard(const Arguments& arguments, Done done);
    void listDisplays(const Arguments&, Done done);
    void selectDisplay(const Arguments& arguments, Done done);

    void whenStreaming(Done done, UniqueFunction<void(Done)> run);
    void after(std::chrono::milliseconds delay, Queue::Block block);
    /// Answers once the host has had time to act.
    void acted(std::string summary, Done done);
    void answerWithScreen(std::string words, Done done);

    RemoteMac& mac_;
    Queue& main_;
    const Parameters parameters_;
    std::vector<TimerToken> timers_;
    Liveness liveness_;
};

}  // namespace velmora
