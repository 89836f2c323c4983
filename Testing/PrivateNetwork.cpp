#include "Testing/PrivateNetwork.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace velmora {
namespace {

/// X servers find a free number by their abstract sockets, which belong to a network. In one of its own a
/// server takes :0, and with it, in the one folder for all, the socket of whoever had that.
void hideOtherScreens() {
    constexpr const char* folder = "/tmp/.X11-unix";
    mkdir(folder, 01777);
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("tmpfs", folder, "tmpfs", 0, "mode=1777") == 0)
        return;
    std::perror("a folder of its own for X servers");
    std::exit(1);
}

}  // namespace

bool enterPrivateNetwork() {
    if (unshare(CLONE_NEWNET) != 0) return false;
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (socket < 0 || ioctl(socket, SIOCSIFFLAGS, &request) != 0) {
        std::perror("the loopback of a private network");
        std::exit(1);
    }
    close(socket);
    hideOtherScreens();
    return true;
}

}  // namespace velmora
