#include "Tests/EndToEnd/SlowCable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace velmora {
namespace {

using Clock = LinkPipe::Clock;

/// A device belongs to the namespace of the thread that makes it; its descriptor works from everywhere.
int openDevice(const SlowCable::End& end) {
    int device = -1;
    std::thread([&] {
        const int home = open(fmt::format("/proc/{}/ns/net", end.inhabitant).c_str(), O_RDONLY | O_CLOEXEC);
        if (home < 0) return;
        const bool isThere = setns(home, CLONE_NEWNET) == 0;
        close(home);
        if (!isThere) return;
        device = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ifreq request{};
        request.ifr_flags = IFF_TUN | IFF_NO_PI;
        std::strncpy(request.ifr_name, end.device.c_str(), sizeof request.ifr_name - 1);
        if (device < 0 || ioctl(device, TUNSETIFF, &request) == 0) return;
        close(device);
        device = -1;
    }).join();
    return device;
}

}  // namespace

SlowCable::SlowCable(const End& one, const End& other, const LinkPipe::Direction& eachWay)
    : ends_{openDevice(one), openDevice(other)},
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      pipes_{{eachWay, 1}, {eachWay, 2}} {
    if (isLaid()) thread_ = std::thread([this] { carry(); });
}

SlowCable::~SlowCable() {
    ending_ = true;
    eventfd_write(wake_, 1);
    if (thread_.joinable()) thread_.join();
    for (const int end : ends_) {
        if (end >= 0) close(end);
    }
    close(wake_);
}

void SlowCable::carry() {
    std::array<std::uint8_t, 65536> buffer;
    while (!ending_) {
        auto next = Clock::now() + std::chrono::seconds(1);
        for (const LinkPipe& pipe : pipes_) next = std::min(next, pipe.nextArrival().value_or(next));
        const auto nanos = std::max<std::int64_t>(std::chrono::nanoseconds(next - Clock::now()).count(), 0);
        const timespec wait{.tv_sec = nanos / 1'000'000'000, .tv_nsec = nanos % 1'000'000'000};
        std::array<pollfd, 3> sources{pollfd{ends_[0], POLLIN, 0}, {ends_[1], POLLIN, 0}, {wake_, POLLIN, 0}};
        ppoll(sources.data(), sources.size(), &wait, nullptr);
        const auto now = Clock::now();
        for (std::size_t from = 0; from < 2; ++from) {
            for (ssize_t size; (size = read(ends_[from], buffer.data(), buffer.size())) > 0;)
                pipes_[from].enter({buffer.data(), buffer.data() + size}, now);
            while (const auto packet = pipes_[from].arrived(now)) {
                // A device that is not up yet takes nothing: lost, as on a cable with nobody at its end.
                [[maybe_unused]] const auto written = write(ends_[1 - from], packet->data(), packet->size());
            }
        }
    }
}

}  // namespace velmora
