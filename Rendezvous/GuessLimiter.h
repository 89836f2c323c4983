#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Rendezvous/ExpiringTable.h"
#include "Rendezvous/HostNumber.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Keeps six digits from being guessed. Wrong passwords are counted three ways: of one source for one Host
/// ID, of all sources for one Host ID, and of one source over all Host IDs. It does not know which IDs exist,
/// so it treats those that don't alike and tells nobody.
///
/// A source that once had the right password of an ID is not held up by what others do to that ID, nor by
/// what it did to other IDs: or anybody could lock an owner out.
///
/// Pure; the caller's queue.
class GuessLimiter {
public:
    struct Parameters {
        int guessesOfPair = 5;          // then that source is locked out of that ID
        int guessesAtId = 20;           // then the ID is locked for all who never had it right
        std::chrono::minutes lock{60};  // "wait an hour", as people are told; also the counts' window
        double guessesOfSource = 10;    // at once, over all IDs
        std::chrono::seconds sourceRecovery{180};  // until it has one more
        double attemptsOfSource = 60;              // right or wrong, in a minute
        double registrationsOfSource = 512;        // of Host IDs new to it, in an hour
        std::size_t remembered = 100'000;          // entries of each table, some 100 bytes each
        std::chrono::hours trust{30 * 24};
    };
    enum class Verdict { allowed, locked, rateLimited };
    /// Stands for the password that a Host ID now has. Who knew an earlier one knows nothing.
    using ProofMark = std::optional<std::uint64_t>;
    struct Try {
        HostNumber id{};
        std::string source;
        ProofMark proof;  // none: nobody is known under this ID
    };

    GuessLimiter() : GuessLimiter(Parameters{}) {}
    explicit GuessLimiter(Parameters parameters);

    /// May `source` ask anything now? Counts as an attempt.
    bool admitAttempt(const std::string& source, HostClock::time_point now);
    /// May this source try a password of this ID? What is allowed counts as a wrong guess of the source's
    /// until `right` says otherwise, so that many at once get no further than one after the other.
    Verdict admit(const Try& attempt, HostClock::time_point now);
    /// May it register under this ID? Counts, unless it has done so before.
    bool admitRegistration(const Try& attempt, HostClock::time_point now);

    /// A wrong guess. `mark` stands for the password: the same one again, as a device list with an old
    /// password asks at each look, teaches nobody anything and does not count. Returns true when this locked
    /// the ID for all.
    bool wrong(HostNumber id, const std::string& source, std::uint64_t mark, HostClock::time_point now);
    /// The same, told by another node, which admitted it.
    bool wrongElsewhere(HostNumber id, const std::string& source, std::uint64_t mark,
                        HostClock::time_point now);
    void right(const Try& attempt, HostClock::time_point now);

    static std::uint64_t markOf(HostNumber id, std::string_view password);

private:
    struct Pair {
        HostNumber id;
        std::string source;
        bool operator==(const Pair&) const = default;
    };
    struct PairHash {
        std::size_t operator()(const Pair& pair) const;
    };
    /// Wrong guesses in a window, and the lock that too many of them bring.
    struct Count {
        int guesses = 0;
        HostClock::time_point since{}, lockedUntil{};
        std::uint64_t lastMark = 0;
    };
    /// What may be used at once and comes back by and by. Counted as what is missing, so that new is full.
    struct Allowance {
        double used = 0;
        HostClock::time_point at{};
        bool take(double limit);
        void giveBack() { used = used < 1 ? 0 : used - 1; }
        void recover(double perSecond, HostClock::time_point now);
    };
    struct Source {
        Allowance guesses, attempts, registrations;
    };
    bool isTrusted(const Try& attempt, HostClock::time_point now);
    bool addTo(Count& count, int limit, HostClock::time_point now) const;
    Source& source(const std::string& name, HostClock::time_point now);

    const Parameters parameters_;
    ExpiringTable<Pair, Count, PairHash> pairs_;
    ExpiringTable<Pair, std::uint64_t, PairHash> trusted_;  // by what proof
    ExpiringTable<HostNumber, Count> ids_;
    ExpiringTable<std::string, Source> sources_;
};

}  // namespace velmora
