#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "VelmoraKit/Core/SampleSet.h"
#include "VelmoraKit/Wire/TimingRecords.h"

namespace velmora {

/// One picture that was decoded. Times are HostClock microseconds, the first three of the host's clock.
struct FrameTiming {
    std::size_t bytes = 0;  // of the frame's message
    bool isKeyframe = false;
    bool isRepeat = false;  // shows again what was there: its capture time says nothing about this picture
    std::uint64_t capture = 0;
    std::uint64_t submit = 0;    // handed to the encoder
    std::uint64_t encoded = 0;   // the encoder returned it
    std::uint64_t received = 0;  // here: the message had arrived
    std::uint64_t decoded = 0;   // here: the decoder had delivered
};

/// Measures one connection from the viewer's side: counts, bytes, and how long a picture took in each stage
/// from the host's screen to the glass here. Two clocks take part, so it reckons their offset from ping and
/// pong. Any thread.
class ViewerStats {
public:
    /// One period, in words for people and as a row for a file.
    struct Snapshot {
        std::string overlay;     // several lines
        std::string title;       // one line, with the frame rate
        std::string shortTitle;  // without it
        std::string csvRow;      // without line end; columns as in `csvHeader`
        int frames = 0;
        int resendRequests = 0;
        bool isSilent = false;             // neither a picture nor a pong
        std::optional<double> networkP95;  // ms; absent without clock offset or frames
    };
    /// What a snapshot tells of the stream itself.
    struct Stream {
        int width = 0, height = 0;
        std::string codec;
        bool hardwareDecode = false;
    };
    /// Where readings come from that are not told by calls.
    struct Sources {
        std::function<double()> cpuPercent;  // of this process since the last call
        std::function<std::chrono::system_clock::time_point()> wallClock;
        static Sources ofThisProcess();
    };

    static constexpr std::string_view csvHeader =
        "time,width,height,codec,fps,mbps,avg_kb,max_kb,keyframes,dropped,capture_avg,capture_p95,encode_avg,"
        "encode_p95,network_avg,network_p95,decode_avg,decode_p95,display_avg,total_avg,total_p95,total_max,"
        "rtt_ms,server_cpu,viewer_cpu,hw_decode";

    explicit ViewerStats(Sources sources = Sources::ofThisProcess());

    /// `displayed`: when the picture reached the glass, HostClock microseconds.
    void recordFrame(const FrameTiming& timing, std::uint64_t displayed);
    /// A pong that claims to answer a ping from the future is dropped.
    void recordPong(const Pong& pong, std::uint64_t receivedMicros);
    void recordResendRequest();

    /// Ends the period, which lasted `interval`, and starts a new one.
    Snapshot take(const Stream& stream, std::chrono::duration<double> interval);

private:
    struct ClockSample {
        std::int64_t rtt;     // microseconds
        std::int64_t offset;  // host clock minus ours, microseconds
    };
    /// What starts afresh with each period. The sets are milliseconds.
    struct Period {
        int frames = 0, keyframes = 0, resendRequests = 0, pongs = 0;
        std::uint64_t dropped = 0;  // by the host, as it reported
        std::size_t bytes = 0, maxBytes = 0;
        SampleSet capture, encode, network, decode, display, total;
    };
    /// What a snapshot is made from, taken out of the lock.
    struct Figures {
        Stream stream;
        Period period;
        bool clockKnown;
        double fps, mbps, averageKB, maxKB, rttMs, serverCPU, viewerCPU;
    };
    static constexpr std::size_t keptClockSamples = 10;

    static std::string overlayOf(const Figures& f);
    static std::string titleOf(const Figures& f);
    static std::string csvRowOf(const Figures& f, std::chrono::system_clock::time_point time);

    const Sources sources_;
    std::mutex lock_;  // guards all below
    std::deque<ClockSample> clockSamples_;
    std::optional<std::int64_t> offset_;  // microseconds, of the quickest of the kept samples
    std::int64_t lastRTT_ = 0;            // microseconds
    double serverCPU_ = 0;                // percent
    Period period_;
};

}  // namespace velmora
