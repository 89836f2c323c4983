// Measures the road of a picture, from a change on a host's screen to the decoded picture at a viewer: the
// built host program on a private X server, a viewer in this process, the loopback or an emulated path
// between them. "added" is that latency. CPU is process time in percent of one core; the viewer's is
// without the part that draws.
//   StreamBenchmark [--case NAME]... [--seconds S] [--size WxH] [--repeat N]
// Without --case all run; "loss", "outage", "narrow" and "clipboard" use the emulated path.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Benchmarks/Stream/BenchViewer.h"
#include "Benchmarks/Stream/HostProcess.h"
#include "Benchmarks/Stream/ScreenLoad.h"
#include "Testing/ScratchFolder.h"
#include "Testing/UdpLinkEmulator.h"
#include "VelmoraKit/Core/SampleSet.h"
#include "VelmoraKit/Wire/MessageType.h"

namespace velmora {

namespace {

using namespace std::chrono_literals;
using Seconds = std::chrono::duration<double>;

struct Settings {
    std::vector<std::string> cases;
    Seconds seconds{10};
    PixelSize size{1440, 900};
    int repeat = 1;
};

/// One host and one viewer, streaming.
class Bench {
public:
    Bench(const Settings& settings, const std::string& preferences,
          const UdpLinkEmulator::Link* link = nullptr)
        : settings_(settings),
          server_({.kind = XServerFixture::Kind::xvfb, .size = settings.size}),
          host_(VELMORA_PROGRAM, server_, preferences),
          load_(server_.display(), settings.size) {
        if (link) emulator_ = std::make_unique<UdpLinkEmulator>(velmoraDefaultPort, *link);
    }
    bool connect() {
        return viewer.connect(emulator_ ? emulator_->port() : velmoraDefaultPort, host_.password())
            .has_value();
    }

    /// As somebody copies a file on the host's screen.
    void copyFile(const std::filesystem::path& file) {
        const std::string offer =
            fmt::format("printf 'file://%s' '{}' | exec xclip -quiet -selection clipboard -t text/uri-list",
                        file.string());
        copying_ = std::move(*server_.run({"sh", "-c", offer}));
    }

    HostProcess& host() { return host_; }
    ScreenLoad& load() { return load_; }
    UdpLinkEmulator& link() { return *emulator_; }
    BenchViewer viewer;

    /// Milliseconds from each change shown to the moment it was shown.
    double latencyOf(const BenchViewer::Seen& seen) const {
        return Seconds(seen.at - load_.changedAt(seen.number)).count() * 1e3;
    }

    struct Shown {
        HostClock::time_point at;
        double latency = 0;  // ms
    };
    /// What is shown in the next `span`. Looked at as it comes: the changes' numbers begin again after a
    /// minute.
    std::vector<Shown> watch(Seconds span) {
        std::vector<Shown> shown;
        viewer.take();
        for (Seconds left = span; left > Seconds::zero();) {
            const Seconds part = std::min<Seconds>(left, 10s);
            std::this_thread::sleep_for(part);
            left -= part;
            for (const auto& seen : viewer.take()) shown.push_back({seen.at, latencyOf(seen)});
        }
        return shown;
    }

private:
    const Settings settings_;
    XServerFixture server_;
    HostProcess host_;
    ScreenLoad load_;
    std::unique_ptr<UdpLinkEmulator> emulator_;
    std::unique_ptr<ChildProgram> copying_;
};

/// What a run of some seconds cost.
class Meter {
public:
    explicit Meter(Bench& bench)
        : bench_(bench),
          hostBefore_(bench.host().use()),
          ownBefore_(useOf(getpid())),
          drawingBefore_(bench.load().cpuSeconds()),
          start_(HostClock::now()) {}
    double seconds() const { return Seconds(HostClock::now() - start_).count(); }
    double hostPercent() const {
        return (bench_.host().use().cpuSeconds - hostBefore_.cpuSeconds) / seconds() * 100;
    }
    double viewerPercent() const {
        const double own = useOf(getpid()).cpuSeconds - ownBefore_.cpuSeconds;
        return (own - (bench_.load().cpuSeconds() - drawingBefore_)) / seconds() * 100;
    }

private:
    Bench& bench_;
    const ProcessUse hostBefore_, ownBefore_;
    const double drawingBefore_;
    const HostClock::time_point start_;
};

void header() {
    fmt::print("{:<22} {:>7} {:>7} {:>7} {:>7} {:>7} {:>7} {:>7}\n", "case", "p50 ms", "p95 ms", "max ms",
               "shown/s", "host %", "view %", "gap ms");
}

/// The longest time without a new picture, ms.
double longestGap(const std::vector<Bench::Shown>& seen) {
    double gap = 0;
    for (std::size_t i = 1; i < seen.size(); ++i)
        gap = std::max(gap, Seconds(seen[i].at - seen[i - 1].at).count() * 1e3);
    return gap;
}

void row(const std::string& name, const Meter& meter, const std::vector<Bench::Shown>& seen) {
    SampleSet latency;
    for (const auto& s : seen) latency.add(s.latency);
    fmt::print("{:<22} {:>7.1f} {:>7.1f} {:>7.1f} {:>7.1f} {:>7.1f} {:>7.1f} {:>7.0f}\n", name,
               latency.percentile(50), latency.percentile(95), latency.max(),
               static_cast<double>(seen.size()) / meter.seconds(), meter.hostPercent(), meter.viewerPercent(),
               longestGap(seen));
    std::fflush(stdout);
}

bool stream(const std::string& name, const Settings& settings, ScreenLoad::Kind kind) {
    Bench bench(settings, "{}");
    if (!bench.connect()) return false;
    bench.load().start(kind);
    std::this_thread::sleep_for(1s);
    const Meter meter(bench);
    row(name, meter, bench.watch(settings.seconds));
    return true;
}

bool idle(const Settings& settings) {
    Bench bench(settings, "{}");
    if (!bench.connect()) return false;
    std::this_thread::sleep_for(1s);
    const Meter meter(bench);
    const auto before = bench.viewer.framesDecoded();
    std::this_thread::sleep_for(settings.seconds);
    fmt::print(
        "idle: {} frames in {:.0f} s, host {:.2f} %, viewer {:.2f} % of a core; resident: host {:.0f} MB, "
        "viewer {:.0f} MB\n",
        bench.viewer.framesDecoded() - before, meter.seconds(), meter.hostPercent(), meter.viewerPercent(),
        bench.host().use().megabytes, useOf(getpid()).megabytes);
    return true;
}

bool connectTime(const Settings& settings) {
    Bench bench(settings, "{}");
    SampleSet times;
    for (int i = 0; i < 11; ++i) {
        const auto time = bench.viewer.connect(velmoraDefaultPort, bench.host().password());
        if (!time) return false;
        if (i > 0) times.add(time->count() * 1e3);  // the first one makes the host's acquaintance
        bench.viewer.close();
        std::this_thread::sleep_for(200ms);
    }
    fmt::print("connect to first picture: p50 {:.0f} ms, p95 {:.0f} ms, max {:.0f} ms over 10\n",
               times.percentile(50), times.percentile(95), times.max());
    return true;
}

UdpLinkEmulator::Link wideArea(double loss, std::int64_t bits) {
    const UdpLinkEmulator::Direction way{.delay = 20ms, .loss = loss, .bitsPerSecond = bits};
    return {.toHost = {.delay = 20ms, .loss = loss}, .toViewer = way};
}

bool loss(const Settings& settings) {
    const auto link = wideArea(0.02, 0);
    Bench bench(settings, R"({"host.bitrateMbps": 8})", &link);
    if (!bench.connect()) return false;
    bench.load().start(ScreenLoad::Kind::scroll);
    std::this_thread::sleep_for(2s);
    const Meter meter(bench);
    const auto before = bench.viewer.repairs();
    row("2 % loss, 40 ms", meter, bench.watch(settings.seconds));
    const auto after = bench.viewer.repairs();
    fmt::print("  asked for packets {} times, {} keyframes\n", after.requests - before.requests,
               after.keyframes - before.keyframes);
    return true;
}

bool outage(const Settings& settings, Seconds dead) {
    const auto link = wideArea(0, 0);
    Bench bench(settings, "{}", &link);
    if (!bench.connect()) return false;
    bench.load().start(ScreenLoad::Kind::typing);
    std::this_thread::sleep_for(4s);
    bench.link().setDead(true);
    std::this_thread::sleep_for(dead);
    bench.link().setDead(false);
    const auto back = HostClock::now();
    bench.viewer.take();
    std::this_thread::sleep_for(5s);
    for (const auto& seen : bench.viewer.take()) {
        if (bench.load().changedAt(seen.number) < back - 100ms) continue;
        fmt::print("link dead for {:.0f} s: live again {:.0f} ms after its return\n", dead.count(),
                   Seconds(seen.at - back).count() * 1e3);
        return true;
    }
    fmt::print("link dead for {:.0f} s: not live again within 5 s\n", dead.count());
    return false;
}

/// The bottleneck holds `buffer` of its own rate once it is narrow.
bool narrow(const Settings& settings, Seconds buffer) {
    const auto wide = wideArea(0, 20'000'000);
    auto slim = wide;
    slim.toViewer.bitsPerSecond = 4'000'000;
    slim.toViewer.queueBytes = static_cast<std::size_t>(4e6 / 8 * buffer.count());
    Bench bench(settings, "{}", &wide);
    if (!bench.connect()) return false;
    bench.load().start(ScreenLoad::Kind::scroll);
    std::this_thread::sleep_for(5s);
    bench.link().setLink(slim);
    const auto narrowed = HostClock::now();
    bench.viewer.take();
    std::this_thread::sleep_for(10s);
    const auto seen = bench.viewer.take();
    // The connection's congestion control stops for 0.2 s every 10 s to measure the path (BBR's ProbeRTT), so
    // "for good" would tell only when that was: one second on end without a late picture has to do.
    HostClock::time_point lastLate = narrowed;
    std::optional<HostClock::time_point> recovered;
    SampleSet after;
    for (const auto& s : seen) {
        const double latency = bench.latencyOf(s);
        if (!recovered && s.at - lastLate > 1s) recovered = lastLate;
        if (latency > 150) lastLate = s.at;
        if (s.at > narrowed + 3s) after.add(latency);
    }
    if (!recovered) {
        fmt::print("20 to 4 Mbit/s: not under 150 ms for a second within 10 s\n");
        return false;
    }
    fmt::print(
        "20 to 4 Mbit/s, {:.0f} ms of buffer: added delay under 150 ms after {:.1f} s; from 3 s on p50 "
        "{:.0f} ms, "
        "p95 {:.0f} ms, worst {:.0f} ms, {:.0f} shown/s\n",
        buffer.count() * 1e3, Seconds(*recovered - narrowed).count(), after.percentile(50),
        after.percentile(95), after.percentile(100), static_cast<double>(seen.size()) / 10);
    return true;
}

/// A file of some megabytes travels to the viewer's clipboard while the screen moves.
bool clipboard(const Settings& settings, std::int64_t bits) {
    constexpr std::size_t megabytes = 30;
    const ScratchFolder folder;
    std::ofstream(folder / "file") << std::string(megabytes << 20, 'x');
    const auto link = wideArea(0, bits);
    Bench bench(settings, R"({"host.bitrateMbps": 8})", bits > 0 ? &link : nullptr);
    if (!bench.connect()) return false;
    bench.load().start(ScreenLoad::Kind::scroll);
    std::this_thread::sleep_for(3s);
    const Meter meter(bench);
    const auto start = HostClock::now();
    bench.copyFile(folder / "file");
    std::vector<Bench::Shown> shown;
    while (bench.viewer.clipboards() == 0) {
        if (HostClock::now() - start > 60s) return false;
        std::ranges::copy(bench.watch(100ms), std::back_inserter(shown));
    }
    const std::string path = bits > 0 ? fmt::format("{} Mbit/s, 40 ms", bits / 1'000'000) : "loopback";
    row("file, " + path, meter, shown);
    fmt::print("  {} MB were there after {:.1f} s\n", megabytes, Seconds(HostClock::now() - start).count());
    return true;
}

using Case = std::function<bool(const Settings&)>;
const std::vector<std::pair<std::string, Case>>& cases() {
    static const auto run = [](const char* name, ScreenLoad::Kind kind) {
        return Case([name, kind](const Settings& settings) { return stream(name, settings, kind); });
    };
    static const std::vector<std::pair<std::string, Case>> all = {
        {"typing", run("typing", ScreenLoad::Kind::typing)},
        {"strip", run("strip", ScreenLoad::Kind::strip)},
        {"scroll", run("scroll", ScreenLoad::Kind::scroll)},
        {"motion", run("motion", ScreenLoad::Kind::motion)},
        {"loss", loss},
        {"idle", idle},
        {"connect", connectTime},
        {"outage", [](const Settings& s) { return outage(s, 1s) && outage(s, 3s); }},
        {"clipboard", [](const Settings& s) { return clipboard(s, 0) && clipboard(s, 40'000'000); }},
        {"narrow", [](const Settings& s) { return narrow(s, 200ms) && narrow(s, 1s); }},
    };
    return all;
}

std::optional<Settings> settingsFrom(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        const char* value = argv[i + 1];
        if (option == "--case")
            settings.cases.emplace_back(value);
        else if (option == "--seconds")
            settings.seconds = Seconds(std::atof(value));
        else if (option == "--repeat")
            settings.repeat = std::atoi(value);
        else if (option != "--size" ||
                 std::sscanf(value, "%dx%d", &settings.size.width, &settings.size.height) != 2)
            return std::nullopt;
    }
    if (argc % 2 == 0) return std::nullopt;
    if (settings.cases.empty()) {
        for (const auto& [name, run] : cases()) settings.cases.push_back(name);
    }
    return settings;
}

int run(int argc, char** argv) {
    const auto settings = settingsFrom(argc, argv);
    if (!settings) {
        fmt::print(stderr,
                   "Usage: StreamBenchmark [--case NAME]... [--seconds S] [--size WxH] [--repeat N]\n");
        return 2;
    }
    header();
    bool isFine = true;
    for (int i = 0; i < settings->repeat; ++i) {
        for (const auto& [name, measure] : cases()) {
            if (std::find(settings->cases.begin(), settings->cases.end(), name) == settings->cases.end())
                continue;
            isFine = measure(*settings) && isFine;
        }
    }
    return isFine ? 0 : 1;
}

}  // namespace

}  // namespace velmora

int main(int argc, char** argv) {
    return velmora::run(argc, argv);
}
