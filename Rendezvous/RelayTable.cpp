#include "Rendezvous/RelayTable.h"

#include <sys/random.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

#include "VelmoraKit/Wire/RelayTags.h"

namespace velmora {
namespace {

constexpr std::size_t tokenDigits = 2 * sizeof(RelayTable::Token);
const Bytes acknowledgement = relayTags::acknowledgement();
const std::size_t registrationSize = relayTags::registration({}).size() + tokenDigits;
/// What each datagram costs beside its bytes, so that a rate also bounds the number of tiny ones.
constexpr std::int64_t datagramCost = 40;

std::string textOfToken(const RelayTable::Token& token) {
    static constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : token) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::optional<std::uint8_t> valueOfDigit(char digit) {
    if (digit >= '0' && digit <= '9') return static_cast<std::uint8_t>(digit - '0');
    if (digit >= 'a' && digit <= 'f') return static_cast<std::uint8_t>(digit - 'a' + 10);
    return std::nullopt;
}

std::optional<RelayTable::Token> tokenOfText(std::string_view text) {
    if (text.size() != tokenDigits) return std::nullopt;
    RelayTable::Token token;
    for (std::size_t i = 0; i < token.size(); ++i) {
        const auto high = valueOfDigit(text[2 * i]);
        const auto low = valueOfDigit(text[2 * i + 1]);
        if (!high || !low) return std::nullopt;
        token[i] = static_cast<std::uint8_t>(*high << 4 | *low);
    }
    return token;
}

/// Tokens are random, so any part of one is a hash.
struct TokenHash {
    std::size_t operator()(const RelayTable::Token& token) const {
        std::size_t hash = 0;
        std::memcpy(&hash, token.data(), sizeof hash);
        return hash;
    }
};

}  // namespace

struct RelayTable::Side {
    std::optional<UdpAddress> address;
    IpAddress local{};
    Time heard;               // last registered, or spoke
    bool spoke = false;       // has sent more than registrations
    std::size_t silence = 0;  // bytes it was sent before that
};

struct RelayTable::Pair {
    std::string hostId;
    std::array<Side, 2> sides;
    Time issued;
    std::int64_t allowance = 0;
    Time refilled;

    bool hasMet() const { return sides[0].address && sides[1].address; }
    Time heard() const { return std::max(sides[0].heard, sides[1].heard); }

    void refill(const Parameters& parameters, Time now) {
        const auto elapsed =
            std::min<std::int64_t>((now - refilled).count(), 1'000'000);  // a burst is shorter
        allowance = std::min<std::int64_t>(
            static_cast<std::int64_t>(parameters.burst),
            allowance + elapsed * static_cast<std::int64_t>(parameters.bytesPerSecond) / 1'000'000);
        refilled = now;
    }
};

struct RelayTable::Port {
    struct Place {
        Pair* pair = nullptr;
        std::size_t side = 0;
    };
    const std::size_t index;
    mutable std::mutex mutex;  // guards what follows
    std::unordered_map<Token, Pair, TokenHash> pairs{};
    std::unordered_map<UdpAddress, Place, AddressHash> places{0, AddressHash::salted()};
    std::unordered_map<std::string, Token> ofHost{};
    Counts counts{};
};

/// What concerns all ports.
struct RelayTable::Book {
    std::mutex mutex;  // guards what follows
    std::size_t pairs = 0;
    std::size_t next = 0;
    std::unordered_map<std::string, std::uint64_t> portsOfHost;  // a bit each
    std::unordered_map<IpAddress, std::size_t, AddressHash> sidesOfSource{0, AddressHash::salted()};
};

RelayTable::RelayTable() : RelayTable(Parameters{}) {}

RelayTable::RelayTable(Parameters parameters)
    : parameters_(std::move(parameters)), book_(std::make_unique<Book>()) {
    assert(!parameters_.ports.empty() && parameters_.ports.size() <= 64 &&
           "a host's ports are bits of a word");
    for (std::size_t i = 0; i < parameters_.ports.size(); ++i) ports_.emplace_back(new Port{i});
}

RelayTable::~RelayTable() = default;

RelayTable::Token RelayTable::randomToken() {
    Token token;
    [[maybe_unused]] const int status = getentropy(token.data(), token.size());
    assert(status == 0 && "fails for more than 256 bytes only");
    return token;
}

std::optional<RelayTable::Ticket> RelayTable::issue(std::string_view hostId, Time now) {
    auto index = reservePort(hostId);
    if (!index) {
        dropStalest(hostId, now);
        index = reservePort(hostId);
    }
    if (!index) return std::nullopt;

    const Token token = parameters_.newToken();
    Port& port = *ports_[*index];
    const std::lock_guard lock(port.mutex);
    Pair& pair = port.pairs[token];
    pair.hostId = hostId;
    pair.issued = now;
    pair.refilled = now;
    pair.allowance = static_cast<std::int64_t>(parameters_.burst);
    port.ofHost[pair.hostId] = token;
    ++port.counts.issued;
    return Ticket{parameters_.ports[*index], textOfToken(token)};
}

std::optional<std::size_t> RelayTable::reservePort(std::string_view hostId) {
    const std::lock_guard lock(book_->mutex);
    if (book_->pairs >= parameters_.maximumPairs) return std::nullopt;
    auto& taken = book_->portsOfHost[std::string(hostId)];
    const std::size_t count = ports_.size();
    const std::size_t start = book_->next++ % count;  // spreads sessions over ports
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t index = (start + i) % count;
        const std::uint64_t bit = std::uint64_t{1} << index;
        if (taken & bit) continue;
        taken |= bit;
        ++book_->pairs;
        return index;
    }
    return std::nullopt;
}

/// Of the host's sessions that do not run: their viewers came another way, or gave up.
void RelayTable::dropStalest(std::string_view hostId, Time now) {
    const std::string key(hostId);
    Port* stalest = nullptr;
    Time since = Time::max();
    for (const auto& port : ports_) {
        const std::lock_guard lock(port->mutex);
        const auto found = port->ofHost.find(key);
        if (found == port->ofHost.end()) continue;
        const Pair& pair = port->pairs.at(found->second);
        const Time last = std::max(pair.issued, pair.heard());
        if (isLive(pair, now) || last >= since) continue;
        since = last;
        stalest = port.get();
    }
    if (!stalest) return;
    const std::lock_guard lock(stalest->mutex);
    const auto found = stalest->ofHost.find(key);
    if (found == stalest->ofHost.end()) return;
    const Token token = found->second;  // which goes with its pair
    if (!isLive(stalest->pairs.at(token), now)) forget(*stalest, token);
}

void RelayTable::receive(std::size_t index, const Arrival& arrival, Time now, std::vector<Departure>& out) {
    assert(index < ports_.size() && arrival.segmentSize > 0);
    Port& port = *ports_[index];
    const ByteView bytes = arrival.bytes;
    const std::size_t size = arrival.segmentSize;
    const std::lock_guard lock(port.mutex);
    const std::size_t last = bytes.size() % size == 0 ? size : bytes.size() % size;
    if (size != registrationSize && last != registrationSize) return forward(port, arrival, bytes, now, out);
    for (std::size_t at = 0; at < bytes.size(); at += size) {
        const ByteView datagram = bytes.subspan(at, std::min(size, bytes.size() - at));
        if (datagram.size() != registrationSize || !relayTags::tokenOf(datagram)) {
            forward(port, arrival, datagram, now, out);
        } else if (registerAddress(port, datagram, arrival, now)) {
            out.push_back({arrival.from, arrival.local, acknowledgement, acknowledgement.size()});
        }
    }
}

bool RelayTable::registerAddress(Port& port, ByteView datagram, const Arrival& arrival, Time now) {
    const auto token = tokenOfText(*relayTags::tokenOf(datagram));
    const auto found = token ? port.pairs.find(*token) : port.pairs.end();
    if (found == port.pairs.end() ||
        (!found->second.hasMet() && now - found->second.issued > parameters_.tokenLifetime)) {
        ++port.counts.forged;
        return false;
    }
    const bool bound = bind(port, found->second, arrival, now);
    ++(bound ? port.counts.registered : port.counts.refused);
    return bound;
}

/// A running session is left alone, by a third address with its token as well as by another session's token
/// from one of its addresses: senders can be forged, and tokens travel in the clear.
bool RelayTable::bind(Port& port, Pair& pair, const Arrival& arrival, Time now) {
    const auto known = port.places.find(arrival.from);
    if (known != port.places.end() && known->second.pair == &pair) {
        pair.sides[known->second.side].heard = now;
        return true;
    }
    if (isLive(pair, now)) return false;
    if (known != port.places.end()) {
        if (isLive(*known->second.pair, now)) return false;
        unbind(port, *known->second.pair, known->second.side);
    }
    std::size_t side = pair.sides[0].address ? 1 : 0;
    if (pair.hasMet() && pair.sides[0].heard < pair.sides[1].heard) side = 0;
    if (pair.sides[side].address) unbind(port, pair, side);  // a NAT gave one of them another port
    {
        const std::lock_guard lock(book_->mutex);
        const auto source = book_->sidesOfSource.try_emplace(subscriberOf(arrival.from.ip), 0).first;
        if (source->second >= parameters_.sidesPerSource) return false;
        ++source->second;
    }
    pair.sides[side] = {.address = arrival.from, .local = arrival.local, .heard = now};
    port.places[arrival.from] = {.pair = &pair, .side = side};
    return true;
}

void RelayTable::unbind(Port& port, Pair& pair, std::size_t side) {
    const auto address = *std::exchange(pair.sides[side].address, std::nullopt);
    port.places.erase(address);
    const std::lock_guard lock(book_->mutex);
    const auto source = book_->sidesOfSource.find(subscriberOf(address.ip));
    if (--source->second == 0) book_->sidesOfSource.erase(source);
}

bool RelayTable::isLive(const Pair& pair, Time now) const {
    return pair.hasMet() && std::ranges::all_of(pair.sides, [&](const Side& side) {
               return side.spoke && now - side.heard <= parameters_.liveLimit;
           });
}

void RelayTable::forward(Port& port, const Arrival& arrival, ByteView bytes, Time now,
                         std::vector<Departure>& out) {
    const std::size_t size = std::min(arrival.segmentSize, bytes.size());
    const std::size_t count = size == 0 ? 1 : (bytes.size() + size - 1) / size;
    const auto place = port.places.find(arrival.from);
    if (place == port.places.end()) {
        ++(relayTags::tokenOf(bytes) ? port.counts.forged : port.counts.unknown);
        return;
    }
    Pair& pair = *place->second.pair;
    Side& from = pair.sides[place->second.side];
    Side& to = pair.sides[1 - place->second.side];
    from.heard = now;
    from.spoke = true;
    if (!to.address) {
        port.counts.unknown += count;
        return;
    }
    pair.refill(parameters_, now);
    const auto cost = static_cast<std::int64_t>(size) + datagramCost;
    auto granted =
        std::min(count, static_cast<std::size_t>(std::max<std::int64_t>(pair.allowance / cost, 0)));
    if (!to.spoke && size > 0) {
        const std::size_t room = parameters_.silentBytes - std::min(parameters_.silentBytes, to.silence);
        granted = std::min(granted, room / size);
    }
    port.counts.limited += count - granted;
    if (granted == 0) return;
    const ByteView leaving = bytes.first(std::min(bytes.size(), granted * size));
    pair.allowance -= static_cast<std::int64_t>(granted) * cost;
    if (!to.spoke) to.silence += leaving.size();
    port.counts.datagrams += granted;
    port.counts.bytes += leaving.size();
    out.push_back({*to.address, to.local, leaving, std::max<std::size_t>(size, 1)});
}

void RelayTable::expire(Time now) {
    for (const auto& port : ports_) {
        const std::lock_guard lock(port->mutex);
        std::vector<Token> old;
        for (const auto& [token, pair] : port->pairs) {
            const bool unused = !pair.hasMet() && now - pair.issued > parameters_.tokenLifetime;
            const bool idle = pair.hasMet() && now - pair.heard() > parameters_.idleLimit;
            if (unused || idle) old.push_back(token);
        }
        for (const Token& token : old) forget(*port, token);
    }
}

void RelayTable::forget(Port& port, const Token& token) {
    Pair& pair = port.pairs.at(token);
    for (std::size_t side = 0; side < pair.sides.size(); ++side) {
        if (pair.sides[side].address) unbind(port, pair, side);
    }
    {
        const std::lock_guard lock(book_->mutex);
        --book_->pairs;
        const auto host = book_->portsOfHost.find(pair.hostId);
        host->second &= ~(std::uint64_t{1} << port.index);
        if (host->second == 0) book_->portsOfHost.erase(host);
    }
    port.ofHost.erase(pair.hostId);
    port.pairs.erase(token);
}

RelayTable::Counts RelayTable::counts() const {
    Counts sum;
    for (const auto& port : ports_) {
        const std::lock_guard lock(port->mutex);
        const Counts& counts = port->counts;
        sum.pairs += port->pairs.size();
        sum.issued += counts.issued;
        sum.registered += counts.registered;
        sum.forged += counts.forged;
        sum.refused += counts.refused;
        sum.datagrams += counts.datagrams;
        sum.bytes += counts.bytes;
        sum.unknown += counts.unknown;
        sum.limited += counts.limited;
    }
    return sum;
}

}  // namespace velmora
