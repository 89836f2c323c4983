// Any datagrams at any times into the reassembler. The input is a list of steps:
// 0 milliseconds since the step before u8 | 1 form u8 | then by form (modulo 4):
//   0 check only
//   1 a datagram as it is: length u8, bytes
//   2 a packet near the front: frame offset u8, index u8, count u8, length u8 (the slice is made up)
//   3 a run of 16 large packets of one frame, to meet the memory limit: frame u32, count u16

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "VelmoraKit/Media/VideoPackets.h"
#include "VelmoraKit/Media/VideoReassembler.h"

using namespace velmora;

namespace {

void require(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", promise);
    std::abort();
}

Bytes packet(std::uint32_t frame, std::uint32_t index, std::uint32_t count, std::size_t sliceSize) {
    ByteWriter writer;
    writer.u32(frame);
    writer.u32(index << 16 | (count & 0xFFFF));
    writer.bytes(Bytes(sliceSize, static_cast<std::uint8_t>(count)));
    return std::move(writer.data);
}

class Run {
public:
    explicit Run(ByteView steps) : reader_(steps) {
        reassembler_.memoryLimit = 64 << 10;  // small enough to be met by a short input
    }

    bool step() {
        const auto milliseconds = reader_.u8();
        const auto form = reader_.u8();
        if (!milliseconds || !form) return false;
        now_ += *milliseconds / 1000.0;
        switch (*form % 4) {
            case 0:
                judge(reassembler_.check(now_));
                break;
            case 1:
                addRaw();
                break;
            case 2:
                addNearFront();
                break;
            default:
                addRun();
                break;
        }
        return true;
    }

private:
    void addRaw() {
        const std::int64_t length = byte();
        const auto bytes = reader_.bytes(length);
        if (bytes) add(Bytes(bytes->begin(), bytes->end()));
    }

    void addNearFront() {
        const auto front = static_cast<std::uint32_t>(reassembler_.next().value_or(1));
        const std::uint32_t frame = front + byte() - 8;
        const std::uint32_t index = byte();
        const std::uint32_t count = byte();
        add(packet(frame, index, count, byte()));
    }

    void addRun() {
        const auto frame = reader_.u32();
        if (!frame) return;
        const std::uint32_t count = std::uint32_t{byte()} << 8 | byte();
        for (std::uint32_t index = 0; index < 16; ++index) add(packet(*frame, index, count, 1'000));
    }

    void add(Bytes datagram) { judge(reassembler_.add(std::move(datagram), now_)); }

    void judge(const VideoReassembler::Output& output) {
        require(reassembler_.waitingBytes() <= reassembler_.memoryLimit, "waiting packets are bounded");
        require(output.nacks.size() <= 1, "one Nack a call");
        require(reassembler_.hasHole() || reassembler_.waitingBytes() == 0, "without a hole nothing waits");
        const auto next = reassembler_.next();
        require(next >= lastNext_, "next never goes back");
        require(output.gap || !lastNext_ || *next - *lastNext_ == output.frames.size(), "no untold hole");
        for (const Nack& nack : output.nacks) {
            require(nack.frame == *next, "only the oldest frame is asked for");
            require(std::ranges::is_sorted(nack.indices), "indices rise");
            require(Nack::decode(nack.encode()).value() == nack, "a Nack can be sent");
        }
        lastNext_ = next;
    }

    std::uint8_t byte() {
        const auto value = reader_.u8();
        return value ? *value : 0;
    }

    ByteReader reader_;
    VideoReassembler reassembler_;
    double now_ = 1000;
    std::optional<std::uint64_t> lastNext_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run({data, size});
    while (run.step()) {
    }
    return 0;
}
