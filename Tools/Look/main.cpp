// A viewer without a window, for people and scripts.

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/EventLoop/QuitSignals.h"
#include "Platform/Linux/System/PngFile.h"
#include "Shared/RemoteDevices.h"
#include "Tools/Look/CompositionLook.h"
#include "Tools/Look/LookOptions.h"
#include "Tools/Look/Looker.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

constexpr int interrupted = 130;  // as a shell has it

RemoteDevices::Target targetOf(const std::string& address) {
    const bool isHostId =
        address.size() == 9 && std::ranges::all_of(address, [](char c) { return c >= '0' && c <= '9'; });
    if (isHostId) return RemoteDevices::HostId{address};
    return RemoteDevices::endpointFor(address);
}

ViewerOptions viewerOptionsOf(const LookOptions& options) {
    return {.target = targetOf(options.address),
            .name = options.address,
            .password = options.password,
            .fingerprint = options.fingerprint,
            .clientName = "velmora-look",
            .agent = options.agent};
}

/// All steps of a script that is there as a whole: its mistakes show before anything is done.
Result<std::vector<LookStep>> readScript(const std::string& file) {
    std::ifstream input(file);
    if (!input) return Failure{fmt::format("cannot read {}", file)};
    std::vector<LookStep> steps;
    std::string line;
    for (int number = 1; std::getline(input, line); ++number) {
        auto step = LookStep::parse(line);
        if (!step) return Failure{fmt::format("{}:{}: {}", file, number, step.error().text)};
        if (*step) steps.push_back(**std::move(step));
    }
    return steps;
}

/// The looker as a thread that waits for input reaches it, until the looker has gone.
struct Feed {
    std::mutex lock;
    Queue* main = nullptr;     // guarded by `lock`; none once the end has begun
    Looker* looker = nullptr;  // on the main queue; none once it has gone

    void post(std::function<void(Looker&)> work) {
        std::lock_guard guard(lock);
        if (!main) return;
        main->post([this, work = std::move(work)] {
            if (looker) work(*looker);
        });
    }
};

/// Runs on a thread of its own that nobody can wait for: it may be in the middle of a read for ever.
void readStandardInput(const std::shared_ptr<Feed>& feed) {
    std::ifstream input("/dev/stdin");
    for (std::string line; std::getline(input, line);) {
        feed->post([line](Looker& looker) {
            auto step = LookStep::parse(line);
            if (!step) return looker.add({line, LookStep::Mistake{step.error().text}});
            if (*step) looker.add(**std::move(step));
        });
    }
    feed->post([](Looker& looker) { looker.endScript(); });
}

int look(const LookOptions& options, const std::vector<LookStep>& steps, const std::shared_ptr<Feed>& feed) {
    QuitSignals quit;  // before any thread
    const auto services = composeLook();
    std::promise<int> exitCode;
    std::unique_ptr<Looker> looker;
    const bool isInteractive = options.script == "-";

    feed->main = &services->main();
    services->main().runSync([&] {
        looker = std::make_unique<Looker>(viewerOptionsOf(options), services->viewer(), services->main(),
                                          services->client(),
                                          Looker::Settings{.limit = options.limit,
                                                           .printStats = options.stats,
                                                           .printSteps = isInteractive,
                                                           .writePng = writePng},
                                          std::cout, std::cerr);
        feed->looker = looker.get();
        looker->onFinished = [&](int code) { exitCode.set_value(code); };
        for (const LookStep& step : steps) looker->add(step);
        if (!isInteractive) looker->endScript();
        looker->start(options.size);
    });
    quit.deliver(services->main(),
                 [feed] { feed->post([](Looker& l) { l.fail("Interrupted.", interrupted); }); });
    if (isInteractive) std::thread(readStandardInput, feed).detach();

    const int code = exitCode.get_future().get();
    {
        std::lock_guard guard(feed->lock);
        feed->main = nullptr;
    }
    services->main().runSync([&] {
        feed->looker = nullptr;
        looker.reset();
    });
    quit.stop();
    return code;
}

int run(const std::vector<std::string>& arguments) {
    const auto options = LookOptions::parse(arguments);
    if (!options) {
        std::cerr << "velmora-look: " << options.error().text << '\n' << LookOptions::usage;
        return Looker::notUnderstood;
    }
    std::vector<LookStep> steps = options->steps;
    if (options->script && options->script != "-") {
        auto script = readScript(*options->script);
        if (!script) {
            std::cerr << "velmora-look: " << script.error().text << '\n';
            return Looker::notUnderstood;
        }
        steps.insert(steps.end(), script->begin(), script->end());
    }
    if (options->log) {
        DebugLog::shared().setSink([](DebugLog::Source source, std::string_view text) {
            std::cerr << fmt::format("{}  {}\n", DebugLog::wordFor(source), text) << std::flush;
        });
    }
    return look(*options, steps, std::make_shared<Feed>());
}

}  // namespace
}  // namespace velmora

int main(int argc, char** argv) {
    const int code = velmora::run({argv + 1, argv + argc});
    std::cout.flush();
    std::_Exit(code);  // a thread may still wait for input: it needs what a return would destroy
}
