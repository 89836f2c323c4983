// Measures what an agent feels: the built agent bridge drives a desktop that the built host shares, over the
// loopback, with a window on it that judges by itself whether a task was done. It finds what to act on in the
// bridge's pictures.
//   AgentBenchmark [--tasks N] [--repeat N] [--check] [--private-network]
// All sixty tasks run unless N are asked for, spread evenly. --check ends with status 1 if one of them is
// missed, and measures nothing else. --private-network keeps the host's port to ourselves, which takes root.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Benchmarks/Agent/Tasks.h"
#include "Testing/PrivateNetwork.h"

namespace velmora {
namespace {

using Clock = std::chrono::steady_clock;

struct Settings {
    std::size_t tasks = 60;
    int repeat = 1;
    bool check = false, privateNetwork = false;
};

double percentile(std::vector<double> samples, double part) {
    if (samples.empty()) return 0;
    std::ranges::sort(samples);
    const auto rank = static_cast<std::size_t>(std::ceil(part * static_cast<double>(samples.size())));
    return samples[std::clamp<std::size_t>(rank, 1, samples.size()) - 1];
}

void tell(const char* what, const std::vector<double>& samples, const char* goal) {
    fmt::print("{:<44} {:6.1f} / {:6.1f} ms  of {:<4} goal {}\n", what, percentile(samples, 0.5),
               percentile(samples, 0.95), samples.size(), goal);
}

/// Milliseconds from the screen's rest to the answer of `wait`.
std::vector<double> measureWaiting(Desktop& desktop) {
    std::vector<double> samples;
    for (int i = 0; i < 12; ++i) {
        desktop.show("motion", {{"seconds", 0.7 + 0.031 * i}});
        desktop.call("wait", {{"timeout", 20}});
        const auto answered = Clock::now().time_since_epoch();
        const auto rested = desktop.said("rested");
        if (rested) samples.push_back(Milliseconds(answered).count() - rested->get<double>() / 1000);
    }
    return samples;
}

/// What looking at text of 8 pixels costs the bridge, and how alike it is to the screen's own pixels.
void measurePictures(Desktop& desktop) {
    desktop.show("text");
    desktop.call("wait", {{"timeout", 1}});
    std::vector<double> processor;
    for (int i = 0; i < 30; ++i) {
        const auto before = desktop.bridgeTime();
        desktop.call("screenshot");
        processor.push_back((desktop.bridgeTime() - before).count());
    }
    tell("processor time of a picture", processor, "40 ms");
    double worst = 1;
    for (const PixelRect& rect :
         {PixelRect{0, 0, 400, 250}, PixelRect{520, 320, 400, 250}, PixelRect{900, 600, 500, 280}}) {
        const auto shot = desktop.call(
            "screenshot",
            {{"region", {{"x", rect.x}, {"y", rect.y}, {"width", rect.width}, {"height", rect.height}}}});
        const auto picture = readJpeg(shot.jpeg);
        const auto screen = desktop.screen(rect);
        worst = std::min(worst, picture && screen ? likeness(*picture, *screen) : 0);
    }
    fmt::print("{:<44} {:6.4f}                    goal 0.95\n", "likeness of text of 8 px in a region (SSIM)",
               worst);
}

struct Outcome {
    int right = 0, all = 0;
};

Outcome runOnce(const Settings& settings) {
    const auto tasks = allTasks();
    std::map<Task::Place, std::vector<const Task*>> byPlace;
    const std::size_t count = std::clamp<std::size_t>(settings.tasks, 1, tasks.size());
    for (std::size_t i = 0; i < count; ++i) {
        const Task& task = tasks[i * tasks.size() / count];
        byPlace[task.place].push_back(&task);
    }
    Outcome outcome;
    Observations seen;
    fmt::print("{:<34} {:>10}  {:>8} {:>6}\n", "task", "display", "seconds", "calls");
    for (const auto& [place, here] : byPlace) {
        const DesktopKind kind = kindOf(place);
        Desktop desktop(kind.size, kind.displays);
        for (const Task* task : here) {
            const auto begun = Clock::now();
            const int callsBefore = desktop.calls();
            const bool isRight = task->perform(desktop, seen);
            outcome.right += isRight;
            ++outcome.all;
            fmt::print("{:<34} {:>10}  {:>8.2f} {:>6}{}\n", task->name,
                       fmt::format("{}x{}", kind.size.width, kind.size.height),
                       std::chrono::duration<double>(Clock::now() - begun).count(),
                       desktop.calls() - callsBefore, isRight ? "" : "  MISSED");
            std::fflush(stdout);
        }
        if (place != Task::Place::ordinary || settings.check) continue;
        tell("`wait`, after the screen's rest", measureWaiting(desktop), "700 ms");
        measurePictures(desktop);
    }
    constexpr double asGiven = 400;  // 300 ms after an action, 100 ms before a look
    std::vector<double> ours = seen.clickToPicture;
    for (double& sample : ours) sample -= asGiven;
    tell("`click` and the picture after it", seen.clickToPicture, "460 ms");
    tell("   our own share of it", ours, "60 ms");
    fmt::print("{} of them did not show yet what the click had done\n", seen.late);
    fmt::print("{} of {} tasks right\n", outcome.right, outcome.all);
    return outcome;
}

int run(const Settings& settings) {
    if (settings.privateNetwork) enterPrivateNetwork();
    Outcome all;
    for (int i = 0; i < settings.repeat; ++i) {
        if (settings.repeat > 1) fmt::print("\nRun {} of {}\n", i + 1, settings.repeat);
        const Outcome outcome = runOnce(settings);
        all.right += outcome.right;
        all.all += outcome.all;
    }
    if (settings.repeat > 1) fmt::print("\nIn all {} of {} tasks right\n", all.right, all.all);
    return settings.check && all.right < all.all ? 1 : 0;
}

}  // namespace
}  // namespace velmora

int main(int argc, char** argv) {
    velmora::Settings settings;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "0";
        if (name == "--tasks") {
            settings.tasks = static_cast<std::size_t>(std::atoi(value)), ++i;
        } else if (name == "--repeat") {
            settings.repeat = std::atoi(value), ++i;
        } else if (name == "--check") {
            settings.check = true;
        } else if (name == "--private-network") {
            settings.privateNetwork = true;
        } else {
            fmt::print(stderr,
                       "usage: AgentBenchmark [--tasks N] [--repeat N] [--check] [--private-network]\n");
            return 2;
        }
    }
    return velmora::run(settings);
}
