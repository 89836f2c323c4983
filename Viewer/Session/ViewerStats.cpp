#include "Viewer/Session/ViewerStats.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

#include "VelmoraKit/Core/ProcessCPUSampler.h"

// All numbers are formatted by libfmt, which knows no locale: a comma in a number would break the rows.

namespace velmora {

namespace {

/// Milliseconds from `start` to `end`, negative if they are the other way round. Both may be any number that
/// a peer cared to send, so the difference is taken without overflow.
double millisBetween(std::uint64_t start, std::uint64_t end) {
    return static_cast<double>(static_cast<std::int64_t>(end - start)) / 1000;
}

std::string overlayRow(std::string_view label, const SampleSet& samples, bool available = true) {
    if (!available || samples.empty()) return fmt::format("{:<11}     –      –      –", label);
    return fmt::format("{:<11}{:6.1f} {:6.1f} {:6.1f}", label, samples.average(), samples.percentile(95),
                       samples.max());
}

}  // namespace

ViewerStats::Sources ViewerStats::Sources::ofThisProcess() {
    auto sampler = std::make_shared<ProcessCPUSampler>();
    return {.cpuPercent = [sampler] { return sampler->sample(); },
            .wallClock = [] { return std::chrono::system_clock::now(); }};
}

ViewerStats::ViewerStats(Sources sources) : sources_(std::move(sources)) {}

void ViewerStats::recordFrame(const FrameTiming& t, std::uint64_t displayed) {
    std::lock_guard lock(lock_);
    ++period_.frames;
    period_.bytes += t.bytes;
    period_.maxBytes = std::max(period_.maxBytes, t.bytes);
    if (t.isKeyframe) ++period_.keyframes;

    period_.encode.add(millisBetween(t.submit, t.encoded));
    period_.decode.add(millisBetween(t.received, t.decoded));
    period_.display.add(millisBetween(t.decoded, displayed));
    if (!t.isRepeat) period_.capture.add(millisBetween(t.capture, t.submit));
    if (!offset_) return;
    const auto offset = static_cast<std::uint64_t>(*offset_);
    period_.network.add(millisBetween(t.encoded - offset, t.received));
    if (!t.isRepeat) period_.total.add(millisBetween(t.capture - offset, displayed));
}

void ViewerStats::recordPong(const Pong& pong, std::uint64_t receivedMicros) {
    const auto rtt = static_cast<std::int64_t>(receivedMicros - pong.viewerMicros);
    if (rtt < 0) return;
    // The reply is taken to have been made half-way, which holds best for the quickest round trip.
    const std::uint64_t middle = pong.viewerMicros + static_cast<std::uint64_t>(rtt) / 2;
    const auto offset = static_cast<std::int64_t>(pong.serverMicros - middle);

    std::lock_guard lock(lock_);
    clockSamples_.push_back({rtt, offset});
    if (clockSamples_.size() > keptClockSamples) clockSamples_.pop_front();
    offset_ = std::ranges::min_element(clockSamples_, {}, &ClockSample::rtt)->offset;
    lastRTT_ = rtt;
    serverCPU_ = pong.serverCPUPermille / 10.0;
    period_.dropped += pong.droppedFrames;
    ++period_.pongs;
}

void ViewerStats::recordResendRequest() {
    std::lock_guard lock(lock_);
    ++period_.resendRequests;
}

ViewerStats::Snapshot ViewerStats::take(const Stream& stream, std::chrono::duration<double> interval) {
    Figures f{.stream = stream, .viewerCPU = sources_.cpuPercent()};
    {
        std::lock_guard lock(lock_);
        f.period = std::exchange(period_, {});
        f.clockKnown = offset_.has_value();
        f.rttMs = static_cast<double>(lastRTT_) / 1000;
        f.serverCPU = serverCPU_;
    }
    const Period& period = f.period;
    const auto bytes = static_cast<double>(period.bytes);
    f.fps = period.frames / interval.count();
    f.mbps = bytes * 8 / 1'000'000 / interval.count();
    f.averageKB = period.frames < 1 ? 0 : bytes / period.frames / 1024;
    f.maxKB = static_cast<double>(period.maxBytes) / 1024;

    Snapshot snapshot{
        .overlay = overlayOf(f),
        .title = titleOf(f),
        .shortTitle = fmt::format("{}×{} · {:.1f} Mbit/s", stream.width, stream.height, f.mbps),
        .csvRow = csvRowOf(f, sources_.wallClock()),
        .frames = period.frames,
        .resendRequests = period.resendRequests,
        .isSilent = period.frames == 0 && period.pongs == 0,
    };
    if (f.clockKnown && !period.network.empty()) snapshot.networkP95 = period.network.percentile(95);
    return snapshot;
}

std::string ViewerStats::overlayOf(const Figures& f) {
    const Period& p = f.period;
    std::string text = fmt::format("{}×{} {} · {:.0f} fps · {:.1f} Mbit/s\n", f.stream.width, f.stream.height,
                                   f.stream.codec, f.fps, f.mbps);
    text += fmt::format("frame avg {:.1f} KB · max {:.0f} KB · key {} · dropped {} · resend {}\n",
                        f.averageKB, f.maxKB, p.keyframes, p.dropped, p.resendRequests);
    text += "\nms            avg    p95    max\n";
    text += overlayRow("capture", p.capture) + '\n';
    text += overlayRow("encode", p.encode) + '\n';
    text += overlayRow("network", p.network, f.clockKnown) + '\n';
    text += overlayRow("decode", p.decode) + '\n';
    text += overlayRow("display ≈", p.display) + '\n';
    text += overlayRow("total ≈", p.total, f.clockKnown) + '\n';
    text += fmt::format("\nRTT {:.1f} ms · CPU server {:.1f}% · viewer {:.1f}%\n", f.rttMs, f.serverCPU,
                        f.viewerCPU);
    text += f.stream.hardwareDecode ? "hardware decode" : "⚠︎ software decode";
    return text;
}

std::string ViewerStats::titleOf(const Figures& f) {
    std::string text =
        fmt::format("{}×{} · {:.0f} fps · {:.1f} Mbit/s", f.stream.width, f.stream.height, f.fps, f.mbps);
    if (f.clockKnown && !f.period.total.empty()) {
        text += fmt::format(" · {:.0f} ms", f.period.total.average());
    }
    return text;
}

std::string ViewerStats::csvRowOf(const Figures& f, std::chrono::system_clock::time_point time) {
    const Period& p = f.period;
    std::string row =
        fmt::format("{:%Y-%m-%dT%H:%M:%SZ},{},{},{}", fmt::gmtime(std::chrono::system_clock::to_time_t(time)),
                    f.stream.width, f.stream.height, f.stream.codec);
    const auto add = [&row](double value) { fmt::format_to(std::back_inserter(row), ",{:.2f}", value); };
    const auto addOrEmpty = [&](const SampleSet& samples, double value) {
        if (f.clockKnown && !samples.empty()) {
            add(value);
        } else {
            row += ',';
        }
    };
    add(f.fps);
    add(f.mbps);
    add(f.averageKB);
    add(f.maxKB);
    row += fmt::format(",{},{}", p.keyframes, p.dropped);
    add(p.capture.average());
    add(p.capture.percentile(95));
    add(p.encode.average());
    add(p.encode.percentile(95));
    addOrEmpty(p.network, p.network.average());
    addOrEmpty(p.network, p.network.percentile(95));
    add(p.decode.average());
    add(p.decode.percentile(95));
    add(p.display.average());
    addOrEmpty(p.total, p.total.average());
    addOrEmpty(p.total, p.total.percentile(95));
    addOrEmpty(p.total, p.total.max());
    add(f.rttMs);
    add(f.serverCPU);
    add(f.viewerCPU);
    row += f.stream.hardwareDecode ? ",1" : ",0";
    return row;
}

}  // namespace velmora
