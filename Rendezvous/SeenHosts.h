#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Rendezvous/HostNumber.h"
#include "Rendezvous/Secrets.h"

namespace velmora {

/// The hosts that were here within thirty days, each with a salted hash of its last password: so somebody who
/// knows the password hears "offline", and everybody else the same as of an ID that does not exist. No
/// password is kept in the clear. Of six digits a hash can be tried through; the file is for the service's
/// own eyes.
///
/// Pure; the caller's queue.
class SeenHosts {
public:
    using Time = std::chrono::sys_seconds;
    struct Proof {
        std::array<std::uint8_t, 16> salt{};
        Digest hash{};
        bool operator==(const Proof&) const = default;
    };
    struct Record {
        Proof proof;
        Time seen{};
        bool operator==(const Record&) const = default;
    };
    static constexpr std::chrono::hours memory{30 * 24};
    static constexpr std::size_t most =
        1'000'000;  // some 100 MB; beyond it new ones are forgotten when they go

    static Proof proofOf(HostNumber id, std::string_view password);
    static bool proves(const Proof& proof, HostNumber id, std::string_view password);

    /// The host is here with this password. The proof stays the same while the password does.
    Record remember(HostNumber id, std::string_view password, Time now);
    /// It was here until now.
    void refresh(HostNumber id, Time now);
    /// What another node knows of it, if that is newer.
    void adopt(HostNumber id, const Record& record);

    /// Is this the password it was last here with? Hashes once whether or not it knows the ID.
    bool matches(HostNumber id, std::string_view password, Time now) const;

    /// Adopts a line as `lineOf` writes it; false if it is none. What is too old is left out.
    bool read(std::string_view line, Time now);
    static std::string lineOf(HostNumber id, const Record& record);

    std::size_t size() const { return records_.size(); }

    /// Stands for the password that it now has; none if it is not known.
    std::optional<std::uint64_t> markOf(HostNumber id) const;

    /// As a file: a first line that names the format, then ID, salt, hash and Unix time, a line each.
    std::string text() const;
    /// Adopts what `text` holds and is not too old. Returns how many lines made no sense; none if the first
    /// line is not ours, and nothing is taken.
    std::optional<std::size_t> readFile(std::string_view text, Time now);
    /// Drops what is too old.
    void prune(Time now);

private:
    static Digest hashOf(HostNumber id, std::string_view password, const Proof& proof);
    std::unordered_map<HostNumber, Record> records_;
};

}  // namespace velmora
