#pragma once

#include <optional>
#include <string>

namespace velmora {

/// The once-a-second judgement of the network: what the host shall send at most. It cuts at once by a fixed
/// ratio and climbs slowly, only after a run of clean seconds, and never above the ceiling. Reads neither
/// clock nor network. One per connection; lives on the main queue.
class AdaptiveBitrate {
public:
    /// What one statistics tick saw.
    struct Measurement {
        int frames = 0;                    // shown
        int resendRequests = 0;            // nacks sent
        int lostFrames = 0;                // given up
        std::optional<double> networkP95;  // 95th percentile of the one-way delay, ms; absent if unknown
    };
    /// What to tell the host, and why.
    struct Change {
        int mbps = 0;
        std::string reason;
        bool operator==(const Change&) const = default;
    };
    struct Parameters {
        double initial = 20.0;         // Mbit/s; target and ceiling of a new connection
        double floor = 2.0;            // Mbit/s; below it a desktop is no longer legible
        double cut = 0.75;             // of the target, in a bad second
        double raise = 1.1;            // of the target, after `cleanSecondsToRaise`
        int cleanSecondsToRaise = 5;   // long enough for a cut to show whether it was enough
        double resendShare = 0.05;     // resend requests per frame that are normal
        int resendsOfFewFrames = 3;    // bad when the share would come to fewer than two
        double baselineWeight = 0.02;  // of a new delay that is above the usual one
        double delayFactor = 1.6;      // bad above usual x factor + margin
        double delayMargin = 25.0;     // ms
    };

    AdaptiveBitrate() : AdaptiveBitrate(Parameters{}) {}
    explicit AdaptiveBitrate(const Parameters& parameters)
        : parameters_(parameters), target_(parameters.initial), ceiling_(parameters.initial) {}

    /// Takes one tick. Gives what the host must be told, if the target came to another whole number: small
    /// moves add up in silence. A tick without frames says nothing about the network and changes nothing.
    std::optional<Change> update(const Measurement& measurement);

    /// The path has a limit: never ask for more from now on. Mbit/s.
    void limitTo(double mbps);

    double target() const { return target_; }
    double ceiling() const { return ceiling_; }

private:
    std::optional<std::string> complaintOf(const Measurement& measurement);
    std::optional<Change> changeSince(long before, std::string reason) const;

    const Parameters parameters_;
    double target_;                        // Mbit/s
    double ceiling_;                       // Mbit/s
    std::optional<double> baselineDelay_;  // ms; the usual network delay, slowly learned
    int cleanSeconds_ = 0;                 // since the last bad one, or the last raise
};

}  // namespace velmora
