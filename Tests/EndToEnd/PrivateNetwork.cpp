// The host's port is fixed: with a network of its own, the program runs beside other hosts and other tests.

#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace velmora {
namespace {

/// Moves the process, before it has any other thread, into a network that is nothing but a loopback. Who may
/// not do that (it takes root) runs on the machine's own network.
class PrivateNetwork : public testing::Environment {
public:
    void SetUp() override {
        if (unshare(CLONE_NEWNET) != 0) return;
        const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(socket, 0);
        ifreq request{};
        std::strcpy(request.ifr_name, "lo");
        request.ifr_flags = IFF_UP | IFF_RUNNING;
        EXPECT_EQ(ioctl(socket, SIOCSIFFLAGS, &request), 0) << std::strerror(errno);
        close(socket);
    }
};

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new PrivateNetwork);

}  // namespace
}  // namespace velmora
