#pragma once

#include <sys/random.h>

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace velmora {

/// IPv6, or IPv4 in its v4-mapped form (::ffff:a.b.c.d), in which a dual-stack socket tells it.
using IpAddress = std::array<std::uint8_t, 16>;

inline bool isIPv4(const IpAddress& address) {
    static constexpr std::array<std::uint8_t, 12> prefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::memcmp(address.data(), prefix.data(), prefix.size()) == 0;
}

/// Whom a limit counts: an IPv4 address, or the /64 of an IPv6 one, all of which one subscriber has.
inline IpAddress subscriberOf(IpAddress address) {
    if (!isIPv4(address)) std::memset(address.data() + 8, 0, 8);
    return address;
}

struct UdpAddress {
    IpAddress ip{};
    std::uint16_t port = 0;
    bool operator==(const UdpAddress&) const = default;
};

/// Salted, so that nobody can choose addresses that fall into one bucket.
struct AddressHash {
    std::uint64_t salt = 0;

    static AddressHash salted() {
        AddressHash hash;
        [[maybe_unused]] const int status = getentropy(&hash.salt, sizeof hash.salt);
        assert(status == 0 && "fails for more than 256 bytes only");
        return hash;
    }

    std::size_t operator()(const IpAddress& ip) const { return mixed(ip, 0); }
    std::size_t operator()(const UdpAddress& address) const { return mixed(address.ip, address.port); }

private:
    static std::uint64_t scramble(std::uint64_t x) {  // the finalizer of MurmurHash3
        x = (x ^ x >> 33) * 0xFF51AFD7ED558CCD;
        x = (x ^ x >> 33) * 0xC4CEB9FE1A85EC53;
        return x ^ x >> 33;
    }
    std::size_t mixed(const IpAddress& ip, std::uint64_t port) const {
        std::uint64_t high = 0;
        std::uint64_t low = 0;
        std::memcpy(&high, ip.data(), 8);
        std::memcpy(&low, ip.data() + 8, 8);
        return scramble(scramble(scramble(high ^ salt) ^ low) ^ port);
    }
};

}  // namespace velmora
