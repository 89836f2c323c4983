#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "Platform/Linux/Network/SocketAddress.h"
#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// UDP packets waiting to be sent, back to back in one buffer, so that runs of equal size can leave in one
/// system call. A value: whoever writes packets needs no socket.
class PacketBatch {
public:
    struct Packet {
        std::size_t offset = 0, length = 0;
        SocketAddress to;
        std::optional<SocketAddress> source;
    };

    /// What is added from now on leaves from this address of the machine; none: the system chooses.
    void leaveFrom(const std::optional<SocketAddress>& source) { source_ = source; }

    /// Room for one packet of up to `size` bytes behind those added; valid until the next call.
    std::span<std::uint8_t> room(std::size_t size) {
        if (buffer_.size() < used_ + size) buffer_.resize(used_ + size);
        return {buffer_.data() + used_, size};
    }
    /// Takes the first `length` bytes of the room as a packet.
    void add(std::size_t length, const SocketAddress& to) {
        packets_.push_back({used_, length, to, source_});
        used_ += length;
    }
    void add(ByteView bytes, const SocketAddress& to) {
        std::copy(bytes.begin(), bytes.end(), room(bytes.size()).begin());
        add(bytes.size(), to);
    }

    void forgetSources() {
        for (Packet& packet : packets_) packet.source.reset();
    }

    bool empty() const { return packets_.empty(); }
    std::span<const Packet> packets() const { return packets_; }
    ByteView bytes(const Packet& packet) const { return {buffer_.data() + packet.offset, packet.length}; }

    void clear() {
        packets_.clear();
        used_ = 0;
    }
    /// The first `count` packets have left.
    void removeFirst(std::size_t count) {
        packets_.erase(packets_.begin(), packets_.begin() + static_cast<std::ptrdiff_t>(count));
        if (packets_.empty()) used_ = 0;
    }

private:
    std::vector<std::uint8_t> buffer_;
    std::vector<Packet> packets_;
    std::size_t used_ = 0;
    std::optional<SocketAddress> source_;
};

}  // namespace velmora
