#include "Platform/Linux/Display/XEventWaiter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

namespace velmora {

XEventWaiter::XEventWaiter() : wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

XEventWaiter::~XEventWaiter() {
    close(wakeFd_);
}

void XEventWaiter::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = write(wakeFd_, &one, sizeof one);
}

void XEventWaiter::wait(const XConnection& connection, std::optional<HostClock::duration> limit) {
    xcb_flush(connection);
    pollfd watched[2] = {{xcb_get_file_descriptor(connection), POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    timespec left{};
    if (limit) {
        const auto span = std::max(limit->count(), HostClock::rep{0});
        left = {.tv_sec = static_cast<time_t>(span / 1'000'000),
                .tv_nsec = static_cast<long>(span % 1'000'000) * 1000};
    }
    // ppoll for its microseconds: a beat of 16.7 ms rounded to whole ones would lose frames.
    ppoll(watched, 2, limit ? &left : nullptr, nullptr);
    if ((watched[1].revents & POLLIN) != 0) {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto taken = read(wakeFd_, &count, sizeof count);
    }
}

}  // namespace velmora
