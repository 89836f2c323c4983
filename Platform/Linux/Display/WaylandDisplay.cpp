#include "Platform/Linux/Display/WaylandDisplay.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace velmora {

bool hasWaylandDisplay() {
    const char* const name = std::getenv("WAYLAND_DISPLAY");
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!name || !*name) return false;
    const std::filesystem::path path =
        *name == '/' || !runtime ? std::filesystem::path(name) : std::filesystem::path(runtime) / name;
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (path.string().size() >= sizeof address.sun_path) return false;
    std::strcpy(address.sun_path, path.c_str());
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket < 0) return false;
    const bool answers = ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(socket);
    return answers;
}

}  // namespace velmora
