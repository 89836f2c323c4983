#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Rendezvous/UdpAddress.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// What the UDP relay decides: who may register, which two addresses belong together, what goes where.
///
/// A session that needs the relay gets a token. Host and viewer each register the address from which they
/// will speak QUIC under it; from then on what one sends goes to the other, unread. Datagrams carry no token,
/// so an address must mean one session: the relay has several ports, and a host gets another one for each
/// session that it has at a time. (With one port a second viewer who knocks would cut off the first.)
///
/// An address costs whoever it belongs to little if somebody else registered it: it is sent no more than a
/// handshake's worth until something comes back, and never more bytes than came in from the other side.
/// What is over a pair's rate is dropped: a queue here would only make the senders' own measurements wrong.
///
/// Thread-safe. Each port has a lock of its own; one thread per port meets no other on its way.
class RelayTable {
public:
    using Time = HostClock::time_point;
    using Token = std::array<std::uint8_t, 16>;

    struct Parameters {
        std::vector<std::uint16_t> ports{3479, 3480, 3481, 3482, 3483, 3484, 3485, 3486};  // at most 64
        std::size_t maximumPairs =
            50'000;  // some 600 bytes each; 1,000 introductions a second for tokenLifetime
        std::size_t sidesPerSource = 200;  // an address may be that of an office
        std::uint64_t bytesPerSecond =
            8'000'000;                    // of a pair, both ways: 20 Mbit/s of video sent twice, and files
        std::uint64_t burst = 2'000'000;  // keyframes
        std::chrono::seconds tokenLifetime{30};  // to register both sides; a viewer gives up after 10
        std::chrono::seconds idleLimit{60};      // QUIC's own is 20
        std::chrono::seconds liveLimit{5};       // both sides of a session speak each second
        std::size_t silentBytes = 32'768;        // sent to an address that only registered
        std::function<Token()> newToken = randomToken;
    };
    RelayTable();
    explicit RelayTable(Parameters parameters);
    ~RelayTable();

    /// What both sides are told; the text of the token is 32 hexadecimal digits.
    struct Ticket {
        std::uint16_t port = 0;
        std::string token;
    };
    /// None: the relay is full, or the host has a running session on each port.
    std::optional<Ticket> issue(std::string_view hostId, Time now);

    /// One or more datagrams that came from one sender in a row, all of `segmentSize` bytes but the last,
    /// which may be shorter. `local` is the address of ours that they were sent to.
    struct Arrival {
        UdpAddress from;
        IpAddress local{};
        ByteView bytes;
        std::size_t segmentSize = 0;
    };
    /// The same on the way out; `bytes` borrows from the arrival.
    struct Departure {
        UdpAddress to;
        IpAddress local{};
        ByteView bytes;
        std::size_t segmentSize = 0;
    };
    /// Appends to `out` what has to leave through the same port. `port` is an index into Parameters::ports.
    void receive(std::size_t port, const Arrival& arrival, Time now, std::vector<Departure>& out);

    /// Forgets tokens that were not used in time and pairs that fell silent. To be called about once a
    /// second.
    void expire(Time now);

    const std::vector<std::uint16_t>& ports() const { return parameters_.ports; }

    struct Counts {  // since the start, but for `pairs`
        std::uint64_t pairs = 0;
        std::uint64_t issued = 0;
        std::uint64_t registered = 0;
        std::uint64_t forged = 0;   // registrations with a token that is unknown or too old
        std::uint64_t refused = 0;  // registrations over a limit, or of an address in a running session
        std::uint64_t datagrams = 0;
        std::uint64_t bytes = 0;
        std::uint64_t unknown = 0;  // dropped: from nobody, or the other side is not there
        std::uint64_t limited = 0;  // dropped: over the rate, or to a silent address
    };
    Counts counts() const;

    static Token randomToken();

private:
    struct Pair;
    struct Side;
    struct Port;
    struct Book;

    std::optional<std::size_t> reservePort(std::string_view hostId);
    void dropStalest(std::string_view hostId, Time now);
    bool registerAddress(Port& port, ByteView datagram, const Arrival& arrival, Time now);
    void forward(Port& port, const Arrival& arrival, ByteView bytes, Time now, std::vector<Departure>& out);
    bool isLive(const Pair& pair, Time now) const;
    bool bind(Port& port, Pair& pair, const Arrival& arrival, Time now);
    void unbind(Port& port, Pair& pair, std::size_t side);
    void forget(Port& port, const Token& token);

    const Parameters parameters_;
    std::vector<std::unique_ptr<Port>> ports_;
    std::unique_ptr<Book> book_;  // its lock is taken last, alone or inside that of a port
};

}  // namespace velmora
