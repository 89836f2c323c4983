#pragma once

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace velmora {

/// Whether a session bus runs. To be asked before GLib connects: it would start a bus of its own beside the
/// session, for a display that it finds.
inline bool hasSessionBus() {
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::error_code ignored;
    return runtime && *runtime == '/' &&
           std::filesystem::exists(std::filesystem::path(runtime) / "bus", ignored);
}

}  // namespace velmora
