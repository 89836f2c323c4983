#include "Testing/PrivateNetwork.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace velmora {

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
    return true;
}

}  // namespace velmora
