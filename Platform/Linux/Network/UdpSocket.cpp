#include "Platform/Linux/Network/UdpSocket.h"

#include <fmt/format.h>
#include <netinet/udp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

namespace {

constexpr int bufferBytes = 4 << 20;         // a keyframe at full rate fits while the thread is held up
constexpr std::size_t maxSegments = 44;      // below the kernel's 64, and below 64 KiB at our sizes
constexpr std::size_t maxRunBytes = 64'000;  // a UDP payload with headers stays below 65,535
constexpr std::size_t receiveSlots = 16;     // packets, or runs of packets, per system call
constexpr std::size_t receiveSlotBytes = 65536;
constexpr int receiveRounds = 8;  // per wake-up

template <class T>
void setOption(int socket, int level, int name, T value) {
    setsockopt(socket, level, name, &value, sizeof value);  // each is a gain, none a need
}

void growBuffers(int socket) {
    for (const auto& [forced, plain] :
         {std::pair{SO_RCVBUFFORCE, SO_RCVBUF}, std::pair{SO_SNDBUFFORCE, SO_SNDBUF}}) {
        if (setsockopt(socket, SOL_SOCKET, forced, &bufferBytes, sizeof bufferBytes) != 0)
            setOption(socket, SOL_SOCKET, plain, bufferBytes);
    }
}

/// Reused by every socket of a network thread: 1 MiB, of which only pages that packets reach are real.
std::vector<std::uint8_t>& receiveBuffer() {
    thread_local std::vector<std::uint8_t> buffer(receiveSlots * receiveSlotBytes);
    return buffer;
}

/// What the kernel says about a message beside its bytes.
struct Ancillary {
    std::size_t segmentSize;  // of the packets glued together in it
    SocketAddress to;
};

Ancillary readAncillary(msghdr& message, std::size_t length) {
    Ancillary result{length, {}};
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level == IPPROTO_UDP && c->cmsg_type == UDP_GRO) {
            int size = 0;
            std::memcpy(&size, CMSG_DATA(c), sizeof size);
            if (size > 0) result.segmentSize = static_cast<std::size_t>(size);
        } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            result.to = SocketAddress::of(info.ipi6_addr, info.ipi6_ifindex);
        } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            result.to = SocketAddress::of(info.ipi_addr);
        }
    }
    return result;
}

/// The control data of a message, written piece by piece.
class ControlWriter {
public:
    template <class T>
    void add(int level, int type, const T& value) {
        auto* header = reinterpret_cast<cmsghdr*>(bytes_.data() + used_);
        header->cmsg_level = level;
        header->cmsg_type = type;
        header->cmsg_len = CMSG_LEN(sizeof value);
        std::memcpy(CMSG_DATA(header), &value, sizeof value);
        used_ += CMSG_SPACE(sizeof value);
    }
    void attachTo(msghdr& message) {
        message.msg_control = used_ > 0 ? bytes_.data() : nullptr;
        message.msg_controllen = used_;
    }

private:
    alignas(cmsghdr)
        std::array<char, CMSG_SPACE(sizeof(std::uint16_t)) + CMSG_SPACE(sizeof(in6_pktinfo))> bytes_{};
    std::size_t used_ = 0;
};

}  // namespace

Result<std::unique_ptr<UdpSocket>> UdpSocket::bindTo(std::uint16_t port, Families families) {
    constexpr int type = SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
    bool dualStack = true;
    int descriptor = families == Families::both ? socket(AF_INET6, type, 0) : -1;
    if (descriptor >= 0) {
        const int off = 0;
        if (setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0) {
            ::close(descriptor);
            descriptor = -1;
        }
    }
    SocketAddress any;
    any = any.withPort(port);
    int status = descriptor < 0 ? -1 : bind(descriptor, any.raw(), any.rawSize());
    if (descriptor < 0 || (status != 0 && errno == EADDRNOTAVAIL)) {  // a machine without IPv6
        if (descriptor >= 0) ::close(descriptor);
        dualStack = false;
        descriptor = socket(AF_INET, type, 0);
        if (descriptor < 0) return Failure{fmt::format("no UDP socket: {}", std::strerror(errno)), errno};
        sockaddr_in any4{};
        any4.sin_family = AF_INET;
        any4.sin_port = htons(port);
        status = bind(descriptor, reinterpret_cast<const sockaddr*>(&any4), sizeof any4);
    }
    if (status != 0) {
        const int code = errno;
        ::close(descriptor);
        return Failure{fmt::format("UDP port {}: {}", port, std::strerror(code)), code};
    }
    return std::unique_ptr<UdpSocket>(new UdpSocket(descriptor, dualStack));
}

UdpSocket::UdpSocket(int descriptor, bool dualStack) : descriptor_(descriptor), dualStack_(dualStack) {
    growBuffers(descriptor_);
    // Path MTU discovery is QUIC's: the kernel must set DF and neither split nor remember a size.
    setOption(descriptor_, IPPROTO_IP, IP_MTU_DISCOVER, int{IP_PMTUDISC_PROBE});
    if (dualStack_) setOption(descriptor_, IPPROTO_IPV6, IPV6_MTU_DISCOVER, int{IPV6_PMTUDISC_PROBE});
    setOption(descriptor_, IPPROTO_UDP, UDP_GRO, int{1});
    setOption(descriptor_, dualStack_ ? IPPROTO_IPV6 : IPPROTO_IP, dualStack_ ? IPV6_RECVPKTINFO : IP_PKTINFO,
              int{1});
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    if (getsockname(descriptor_, reinterpret_cast<sockaddr*>(&bound), &length) == 0)
        local_ = SocketAddress::from(reinterpret_cast<sockaddr*>(&bound), length).value_or(local_);
}

UdpSocket::~UdpSocket() {
    ::close(descriptor_);
}

/// How many packets at the front can leave in one call: one receiver, equal sizes, the last may be shorter.
std::size_t UdpSocket::runLength(const PacketBatch& batch) const {
    const auto packets = batch.packets();
    if (!segmentation_) return 1;
    std::size_t count = 1;
    std::size_t bytes = packets[0].length;
    while (count < packets.size() && count < maxSegments) {
        const auto& next = packets[count];
        if (next.length > packets[0].length || bytes + next.length > maxRunBytes ||
            next.to != packets[0].to || next.source != packets[0].source)
            break;
        bytes += next.length;
        ++count;
        if (next.length < packets[0].length) break;
    }
    return count;
}

/// 0, or the errno.
int UdpSocket::sendRun(const PacketBatch& batch, std::size_t count) {
    const auto packets = batch.packets();
    const auto& first = packets[0];
    const auto& last = packets[count - 1];
    iovec bytes{const_cast<std::uint8_t*>(batch.bytes(first).data()),
                last.offset + last.length - first.offset};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    sockaddr_in6 to6 = first.to.v6();
    sockaddr_in to4{};
    if (dualStack_) {
        message.msg_name = &to6;
        message.msg_namelen = sizeof to6;
    } else {
        if (!first.to.isIPv4()) return ENETUNREACH;
        to4 = first.to.v4();
        message.msg_name = &to4;
        message.msg_namelen = sizeof to4;
    }
    ControlWriter control;
    if (count > 1) control.add(IPPROTO_UDP, UDP_SEGMENT, static_cast<std::uint16_t>(first.length));
    // An answer leaves from the address that was asked: with several, the kernel might choose another one.
    if (first.source && dualStack_) {
        control.add(IPPROTO_IPV6, IPV6_PKTINFO,
                    in6_pktinfo{first.source->v6().sin6_addr, first.source->v6().sin6_scope_id});
    } else if (first.source) {
        control.add(IPPROTO_IP, IP_PKTINFO, in_pktinfo{0, first.source->v4().sin_addr, {}});
    }
    control.attachTo(message);
    while (sendmsg(descriptor_, &message, MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) return errno;
    }
    return 0;
}

void UdpSocket::send(PacketBatch& batch) {
    while (!batch.empty()) {
        const std::size_t count = runLength(batch);
        const int error = sendRun(batch, count);
        if (error == EAGAIN || error == EWOULDBLOCK) return;
        if (error == 0) {
            batch.removeFirst(count);
            continue;
        }
        if (batch.packets()[0].source && error != EIO && error != EMSGSIZE) {
            batch.forgetSources();  // the address may be ours no more: the system may choose
            continue;
        }
        if (count == 1) {
            dropFirst(batch, error);
        } else if (!sendSingly(batch, count, error)) {
            return;
        }
    }
}

/// A run did not leave. EIO: the interface cannot make checksums for us; EINVAL, EMSGSIZE: a packet larger
/// than it carries. Packets one by one tell which: if all of them leave, it was the run. False: the socket is
/// full.
bool UdpSocket::sendSingly(PacketBatch& batch, std::size_t count, int reason) {
    bool allLeft = true;
    for (std::size_t i = 0; i < count; ++i) {
        const int error = sendRun(batch, 1);
        if (error == EAGAIN || error == EWOULDBLOCK) return false;
        allLeft = allLeft && error == 0;
        dropFirst(batch, error);
    }
    if (allLeft) {
        segmentation_ = false;
        debugLog(fmt::format("UDP port {}: no segmentation here ({})", port(), std::strerror(reason)));
    }
    return true;
}

void UdpSocket::dropFirst(PacketBatch& batch, int error) {
    if (error != 0 && error != EMSGSIZE && lastError_.code == 0) lastError_ = {error, batch.packets()[0].to};
    batch.removeFirst(1);
}

void UdpSocket::receive(Arrival& arrival) {
    auto& buffer = receiveBuffer();
    std::array<mmsghdr, receiveSlots> messages;
    std::array<iovec, receiveSlots> spans;
    std::array<sockaddr_storage, receiveSlots> senders;
    struct alignas(cmsghdr) Control {
        std::array<char, CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(in6_pktinfo))> bytes;
    };
    std::array<Control, receiveSlots> controls;
    for (int round = 0; round < receiveRounds; ++round) {
        for (std::size_t i = 0; i < receiveSlots; ++i) {
            spans[i] = {buffer.data() + i * receiveSlotBytes, receiveSlotBytes};
            messages[i] = {};
            msghdr& header = messages[i].msg_hdr;
            header.msg_name = &senders[i];
            header.msg_namelen = sizeof senders[i];
            header.msg_iov = &spans[i];
            header.msg_iovlen = 1;
            header.msg_control = controls[i].bytes.data();
            header.msg_controllen = controls[i].bytes.size();
        }
        const int count = recvmmsg(descriptor_, messages.data(), receiveSlots, MSG_DONTWAIT, nullptr);
        if (count <= 0) return;
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
            msghdr& header = messages[i].msg_hdr;
            const auto from =
                SocketAddress::from(reinterpret_cast<sockaddr*>(&senders[i]), header.msg_namelen);
            if (!from || (header.msg_flags & MSG_TRUNC)) continue;
            const ByteView whole(buffer.data() + i * receiveSlotBytes, messages[i].msg_len);
            const Ancillary said = readAncillary(header, whole.size());
            for (std::size_t at = 0; at < whole.size(); at += said.segmentSize)
                arrival(whole.subspan(at, std::min(said.segmentSize, whole.size() - at)), *from, said.to);
        }
        if (static_cast<std::size_t>(count) < receiveSlots) return;
    }
}

}  // namespace velmora
