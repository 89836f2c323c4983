#include "Rendezvous/SeenHosts.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

namespace velmora {
namespace {

constexpr std::string_view firstLine = "velmora seen hosts 1";

template <std::size_t N>
bool readHex(std::string_view text, std::array<std::uint8_t, N>& into) {
    if (text.size() != 2 * N) return false;
    for (std::size_t i = 0; i < N; ++i) {
        const char* at = text.data() + 2 * i;
        const auto [end, error] = std::from_chars(at, at + 2, into[i], 16);
        if (error != std::errc{} || end != at + 2) return false;
    }
    return true;
}

/// What stands before `separator`, taken off `text`.
std::string_view takeUpTo(char separator, std::string_view& text) {
    const auto end = std::min(text.find(separator), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return taken;
}

std::optional<std::pair<HostNumber, SeenHosts::Record>> recordOf(std::string_view line) {
    SeenHosts::Record record;
    const auto id = hostNumberOf(takeUpTo(' ', line));
    if (!id || !readHex(takeUpTo(' ', line), record.proof.salt) ||
        !readHex(takeUpTo(' ', line), record.proof.hash)) {
        return std::nullopt;
    }
    std::int64_t seconds = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), seconds);
    // Far enough for any date, and near enough that arithmetic with it cannot overflow.
    const bool usable = seconds >= 0 && seconds < std::int64_t{1} << 40;
    if (error != std::errc{} || end != line.data() + line.size() || !usable) return std::nullopt;
    record.seen = SeenHosts::Time{std::chrono::seconds(seconds)};
    return std::pair{*id, record};
}

}  // namespace

Digest SeenHosts::hashOf(HostNumber id, std::string_view password, const Proof& proof) {
    std::string text(proof.salt.begin(), proof.salt.end());
    text += hostIdOf(id);
    text += password;
    return sha256(viewOf(text));
}

SeenHosts::Proof SeenHosts::proofOf(HostNumber id, std::string_view password) {
    Proof proof;
    fillRandomly(proof.salt);
    proof.hash = hashOf(id, password, proof);
    return proof;
}

bool SeenHosts::proves(const Proof& proof, HostNumber id, std::string_view password) {
    return equalInConstantTime(hashOf(id, password, proof), proof.hash);
}

SeenHosts::Record SeenHosts::remember(HostNumber id, std::string_view password, Time now) {
    const auto found = records_.find(id);
    const bool same = found != records_.end() && proves(found->second.proof, id, password);
    const Record record{same ? found->second.proof : proofOf(id, password), now};
    adopt(id, record);
    return record;
}

std::optional<std::uint64_t> SeenHosts::markOf(HostNumber id) const {
    const auto found = records_.find(id);
    if (found == records_.end()) return std::nullopt;
    std::uint64_t mark = 0;
    std::memcpy(&mark, found->second.proof.salt.data(), sizeof mark);
    return mark;
}

void SeenHosts::refresh(HostNumber id, Time now) {
    if (const auto found = records_.find(id); found != records_.end()) found->second.seen = now;
}

void SeenHosts::adopt(HostNumber id, const Record& record) {
    const auto found = records_.find(id);
    if (found != records_.end()) {
        if (record.seen >= found->second.seen) found->second = record;
    } else if (records_.size() < most) {
        records_.emplace(id, record);
    }
}

bool SeenHosts::matches(HostNumber id, std::string_view password, Time now) const {
    static const Proof nobody{};
    const auto found = records_.find(id);
    const bool known = found != records_.end() && now - found->second.seen < memory;
    const Proof& proof = known ? found->second.proof : nobody;
    return proves(proof, id, password) && known;
}

void SeenHosts::prune(Time now) {
    std::erase_if(records_, [&](const auto& entry) { return now - entry.second.seen >= memory; });
}

std::string SeenHosts::lineOf(HostNumber id, const Record& record) {
    return fmt::format("{} {:02x} {:02x} {}", hostIdOf(id), fmt::join(record.proof.salt, ""),
                       fmt::join(record.proof.hash, ""), record.seen.time_since_epoch().count());
}

bool SeenHosts::read(std::string_view line, Time now) {
    auto record = recordOf(line);
    if (!record) return false;
    // A clock that once ran ahead must not keep somebody for ever.
    record->second.seen = std::min(record->second.seen, now);
    if (now - record->second.seen < memory) adopt(record->first, record->second);
    return true;
}

std::string SeenHosts::text() const {
    std::string text = fmt::format("{}\n", firstLine);
    for (const auto& [id, record] : records_) text += lineOf(id, record) + "\n";
    return text;
}

std::optional<std::size_t> SeenHosts::readFile(std::string_view text, Time now) {
    if (takeUpTo('\n', text) != firstLine) return std::nullopt;
    std::size_t bad = 0;
    while (!text.empty()) bad += read(takeUpTo('\n', text), now) ? 0 : 1;
    return bad;
}

}  // namespace velmora
