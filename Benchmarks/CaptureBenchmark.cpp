// What capturing costs, on private X servers: conversion alone, grab and conversion together, and the whole
// way from a change on the screen to the sample. Times in milliseconds.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <ctime>
#include <fstream>
#include <future>
#include <mutex>

#include "Platform/Linux/Capture/Bt709.h"
#include "Platform/Linux/Capture/ScreenGrabber.h"
#include "Platform/Linux/Capture/X11ScreenCapture.h"
#include "Platform/Linux/Display/X11Displays.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

double clockMillis(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

/// CPU time a process has used, from the scheduler's own count of nanoseconds.
double processMillis(pid_t pid) {
    double nanoseconds = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/schedstat") >> nanoseconds;
    return nanoseconds / 1e6;
}

class Series {
public:
    void add(double value) { values_.push_back(value); }
    std::string text() {
        if (values_.empty()) return "-";
        std::ranges::sort(values_);
        const auto at = [&](double share) {
            return values_[std::min(values_.size() - 1, static_cast<std::size_t>(share * values_.size()))];
        };
        return fmt::format("{:.3f} / {:.3f}", at(0.5), at(0.95));
    }

private:
    std::vector<double> values_;
};

constexpr PixelSize sizes[] = {{1440, 900}, {1920, 1080}, {3840, 2160}};

std::string nameOf(PixelSize size) {
    return fmt::format("{}x{}", size.width, size.height);
}

void conversionAlone() {
    fmt::print("conversion alone                     CPU p50 / p95\n");
    for (const PixelSize size : sizes) {
        const int stride = size.width * 4;
        std::vector<std::uint8_t> pixels(static_cast<std::size_t>(stride) *
                                         static_cast<std::size_t>(size.height));
        for (std::size_t i = 0; i < pixels.size(); ++i)
            pixels[i] = static_cast<std::uint8_t>(i * 2654435761U >> 13);
        PictureBuffer picture(size);
        for (const auto kernel : {Bt709::Kernel::plain, Bt709::Kernel::avx2}) {
            if (!Bt709::isSupported(kernel)) continue;
            Series cpu;
            for (int i = 0; i < 100; ++i) {
                const double from = clockMillis(CLOCK_THREAD_CPUTIME_ID);
                Bt709::convert(pixels.data(), stride, picture, {0, 0, size.width, size.height}, kernel);
                cpu.add(clockMillis(CLOCK_THREAD_CPUTIME_ID) - from);
            }
            fmt::print("  {:10} {:6}                  {}\n", nameOf(size),
                       kernel == Bt709::Kernel::plain ? "plain" : "avx2", cpu.text());
        }
    }
}

void grabs(XServerFixture::Kind kind, PixelSize screen, PixelSize picture) {
    XServerFixture server(kind);
    XTestClient client(server.display());
    const bool isXvfb = kind == XServerFixture::Kind::xvfb;
    if (!server.ok() ||
        !client.setOutput(isXvfb ? "screen" : "DUMMY0", {0, 0, screen.width, screen.height})) {
        fmt::print("  no server: {}\n", server.error());
        return;
    }
    auto events = XConnection::open(server.display());
    auto grabber = ScreenGrabber::open(server.display());
    if (!events || !grabber) return;
    XConnection& x = **events;
    x.reply(xcb_damage_query_version_reply, xcb_damage_query_version(x, 1, 1));
    const xcb_damage_damage_t damage = xcb_generate_id(x);
    xcb_damage_create(x, damage, x.root(), XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
    x.reply(xcb_get_input_focus_reply, xcb_get_input_focus(x));
    if (!(*grabber)->show(X11Displays(server.display()).mainDisplayId(), picture)) return;
    const std::string label = fmt::format("{} {}{}", isXvfb ? "Xvfb" : "Xorg", nameOf(screen),
                                          screen == picture ? "" : " to " + nameOf(picture));
    for (const bool whole : {true, false}) {
        Series wall, cpu;
        const double serverBefore = processMillis(server.pid());
        double drawing = 0;
        constexpr int rounds = 150;
        for (int i = 0; i < rounds; ++i) {
            // Typing: one character cell, moving along a line.
            const PixelRect cell{20 + i % 80 * 9, 300 + i / 80 * 18, 9, 17};
            const double drawFrom = processMillis(server.pid());
            client.fill(cell, 0x101010U * static_cast<std::uint32_t>(i % 13));
            drawing += processMillis(server.pid()) - drawFrom;
            const double from = clockMillis(CLOCK_MONOTONIC), cpuFrom = clockMillis(CLOCK_THREAD_CPUTIME_ID);
            const auto outcome = whole ? (*grabber)->grabWhole(damage) : (*grabber)->grabChanges(damage);
            cpu.add(clockMillis(CLOCK_THREAD_CPUTIME_ID) - cpuFrom);
            wall.add(clockMillis(CLOCK_MONOTONIC) - from);
            if (outcome != ScreenGrabber::Outcome::picture) fmt::print("  no picture!\n");
        }
        const double serverCpu = (processMillis(server.pid()) - serverBefore - drawing) / rounds;
        fmt::print("  {:28} {:7} {:17} {:17} {:.3f}\n", label, whole ? "whole" : "typing", wall.text(),
                   cpu.text(), serverCpu);
    }
}

/// Draws `strokeOf(i)` thirty times a second and waits for the sample that shows it.
void fromChangeToSample(const char* name, PixelSize size, PixelRect (*strokeOf)(int, PixelSize)) {
    XServerFixture server(XServerFixture::Kind::xvfb);
    XTestClient client(server.display());
    if (!server.ok() || !client.setOutput("screen", {0, 0, size.width, size.height})) return;
    ThreadQueue queue("velmora.capture");
    X11ScreenCapture capture(queue, server.display());
    std::mutex mutex;
    std::condition_variable arrived;
    int samples = 0;
    double at = 0;
    Series age;
    std::uint64_t drawnAt = 0;
    capture.onSample = [&](const ScreenSample& sample) {
        const double now = clockMillis(CLOCK_MONOTONIC);
        std::lock_guard lock(mutex);
        at = now;
        ++samples;
        if (drawnAt != 0)
            age.add((static_cast<double>(sample.captureMicros) - static_cast<double>(drawnAt)) / 1e3);
        arrived.notify_one();
    };
    capture.start({.display = X11Displays(server.display()).mainDisplayId(), .size = size}, [](Status) {});
    const auto waitFor = [&](int count) {
        std::unique_lock lock(mutex);
        return arrived.wait_for(lock, std::chrono::seconds(10), [&] { return samples >= count; });
    };
    if (!waitFor(1)) return;
    constexpr int rounds = 150;
    Series wall;
    const double cpuFrom = clockMillis(CLOCK_PROCESS_CPUTIME_ID) - clockMillis(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < rounds; ++i) {
        usleep(33'000);
        int before = 0;
        {
            std::lock_guard lock(mutex);
            before = samples;
            drawnAt = HostClock::nowMicros();
        }
        const double from = clockMillis(CLOCK_MONOTONIC);
        client.fill(strokeOf(i, size), 0x0f0f0fU * static_cast<std::uint32_t>(1 + i % 17));
        if (!waitFor(before + 1)) return;
        std::lock_guard lock(mutex);
        wall.add(at - from);
    }
    const double cpu = clockMillis(CLOCK_PROCESS_CPUTIME_ID) - clockMillis(CLOCK_THREAD_CPUTIME_ID) - cpuFrom;
    fmt::print("  {:18} {:10} {:17} {:17} {:.3f}\n", name, nameOf(size), wall.text(), age.text(),
               cpu / rounds);
}

/// A source that draws sixty times a second by the clock, and a consumer that is busy for a while with each.
void steadySource(PixelSize size, std::chrono::milliseconds busy) {
    XServerFixture server(XServerFixture::Kind::xvfb);
    XTestClient client(server.display());
    if (!server.ok() || !client.setOutput("screen", {0, 0, size.width, size.height})) return;
    ThreadQueue queue("velmora.capture");
    X11ScreenCapture capture(queue, server.display());
    Series age;
    int samples = 0;
    std::promise<void> first;
    capture.onSample = [&](const ScreenSample& sample) {
        if (++samples == 1) return first.set_value();
        age.add(static_cast<double>(HostClock::nowMicros() - sample.captureMicros) / 1e3);
        const double from = clockMillis(CLOCK_MONOTONIC);
        while (clockMillis(CLOCK_MONOTONIC) - from < static_cast<double>(busy.count())) {
        }
    };
    capture.start({.display = X11Displays(server.display()).mainDisplayId(), .size = size}, [](Status) {});
    first.get_future().wait();
    constexpr int rounds = 300;
    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (int i = 0; i < rounds; ++i) {
        next.tv_nsec += 16'666'667;
        if (next.tv_nsec >= 1'000'000'000) {
            next.tv_nsec -= 1'000'000'000;
            ++next.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
        client.fill({0, 100, size.width, 120}, 0x0f0f0fU * static_cast<std::uint32_t>(1 + i % 17));
    }
    usleep(50'000);
    queue.runSync([&] {
        fmt::print("  strip, consumer busy {:2} ms       {:5.1f} a second   {}\n", busy.count(),
                   (samples - 1) * 60.0 / rounds, age.text());
    });
}

void stillScreen() {
    XServerFixture server(XServerFixture::Kind::xvfb);
    XTestClient client(server.display());
    if (!server.ok() || !client.setOutput("screen", {0, 0, 1440, 900})) return;
    ThreadQueue queue("velmora.capture");
    X11ScreenCapture capture(queue, server.display());
    int samples = 0;
    capture.onSample = [&](const ScreenSample&) { ++samples; };
    capture.start({.display = X11Displays(server.display()).mainDisplayId(), .size = {1440, 900}},
                  [](Status) {});
    usleep(500'000);
    const double from = clockMillis(CLOCK_PROCESS_CPUTIME_ID);
    int before = 0, after = 0;
    queue.runSync([&] { before = samples; });
    usleep(2'000'000);
    queue.runSync([&] { after = samples; });
    fmt::print("still screen: {} samples and {:.3f} ms of CPU in 2 s\n", after - before,
               clockMillis(CLOCK_PROCESS_CPUTIME_ID) - from);
}

}  // namespace
}  // namespace velmora

int main() {
    using namespace velmora;
    conversionAlone();
    fmt::print("\ngrab and conversion                  wall p50 / p95    CPU p50 / p95     server CPU\n");
    for (const auto kind : {XServerFixture::Kind::xvfb, XServerFixture::Kind::xorgDummy}) {
        for (const PixelSize size : sizes) grabs(kind, size, size);
    }
    grabs(XServerFixture::Kind::xorgDummy, {5120, 2880}, {3840, 2160});
    fmt::print(
        "\nfrom change to sample                wall p50 / p95    capture time - change   CPU a sample\n");
    const auto cell = [](int i, PixelSize) { return PixelRect{20 + i % 80 * 9, 300 + i / 80 * 18, 9, 17}; };
    const auto everything = [](int, PixelSize size) { return PixelRect{0, 0, size.width, size.height}; };
    for (const PixelSize size : {PixelSize{1440, 900}, PixelSize{1920, 1080}}) {
        fromChangeToSample("typing", size, cell);
        fromChangeToSample("whole screen", size, everything);
    }
    fmt::print("\nsource of 60 a second                 samples          change to sample p50 / p95\n");
    for (const int busy : {0, 8, 15}) steadySource({1440, 900}, std::chrono::milliseconds(busy));
    fmt::print("\n");
    stillScreen();
    return 0;
}
