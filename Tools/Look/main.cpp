// A viewer without a window, for people and scripts.

#include <fmt/format.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/EventLoop/QuitSignals.h"
#include "Platform/Linux/System/PngFile.h"
#include "Tools/Look/CompositionLook.h"
#include "Tools/Look/LookOptions.h"
#include "Tools/Look/Looker.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Signaling/SignalingClient.h"

namespace velmora {
namespace {

constexpr int interrupted = 130;  // as a shell has it

ViewerOptions viewerOptionsOf(const LookOptions& options) {
    return {.target = options.target(),
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

/// The looker as a thread that waits for input reaches it, until the looker goes.
class Feed {
public:
    void open(Queue& main, Looker& looker) {
        std::lock_guard guard(lock_);
        main_ = &main;
        looker_ = &looker;
    }
    /// What has not run by now never will: the main queue runs no more.
    void close() {
        std::lock_guard guard(lock_);
        main_ = nullptr;
    }
    void post(std::function<void(Looker&)> work) {
        std::lock_guard guard(lock_);
        if (main_) main_->post([looker = looker_, work = std::move(work)] { work(*looker); });
    }

private:
    std::mutex lock_;
    Queue* main_ = nullptr;  // guarded by the lock, as the looker is
    Looker* looker_ = nullptr;
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

int look(const LookOptions& options, const std::vector<LookStep>& steps, const SignalingUrl& rendezvous,
         const std::shared_ptr<Feed>& feed) {
    QuitSignals quit;  // before any thread
    const auto services = composeLook(rendezvous);
    const bool isInteractive = options.script == "-";
    Looker looker(viewerOptionsOf(options), services->viewer(), services->main(), services->client(),
                  Looker::Settings{.limit = options.limit,
                                   .printStats = options.stats,
                                   .printSteps = isInteractive,
                                   .writePng = writePng},
                  std::cout, std::cerr);
    int exitCode = 0;
    looker.onFinished = [&](int code) {
        exitCode = code;
        services->stop();
    };
    for (const LookStep& step : steps) looker.add(step);
    if (!isInteractive) looker.endScript();
    feed->open(services->main(), looker);
    feed->post([size = options.size](Looker& l) { l.start(size); });
    quit.deliver(services->main(), [&looker] { looker.fail("Interrupted.", interrupted); });
    if (isInteractive) std::thread(readStandardInput, feed).detach();
    services->run();
    feed->close();
    quit.stop();
    return exitCode;
}

int run(const std::vector<std::string>& arguments) {
    const auto options = LookOptions::parse(arguments);
    if (!options) {
        std::cerr << "velmora-look: " << options.error().text << '\n' << LookOptions::usage;
        return Looker::notUnderstood;
    }
    const auto rendezvous = SignalingClient::defaultURL();
    if (!rendezvous) {
        std::cerr << "velmora-look: " << rendezvous.error().text << '\n';
        return Looker::hasFailed;
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
    return look(*options, steps, *rendezvous, std::make_shared<Feed>());
}

}  // namespace
}  // namespace velmora

int main(int argc, char** argv) {
    const int code = velmora::run({argv + 1, argv + argc});
    std::cout.flush();
    std::_Exit(code);  // a thread may still wait for input: it needs what a return would destroy
}
