#include "Testing/PrivateBus.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <utility>

namespace velmora {

using namespace std::chrono_literals;

PrivateBus::PrivateBus(Role role, std::filesystem::path socket)
    : variable_(role == Role::session ? "DBUS_SESSION_BUS_ADDRESS" : "DBUS_SYSTEM_BUS_ADDRESS"),
      socket_(socket.empty() ? folder_ / "bus" : std::move(socket)),
      address_("unix:path=" + socket_.string()) {
    std::error_code ignored;
    std::filesystem::remove(socket_, ignored);
    const auto configuration = folder_ / "bus.conf";
    std::ofstream(configuration) << "<busconfig><type>session</type><listen>" << address_ << "</listen>"
                                 << "<policy context='default'><allow send_destination='*' eavesdrop='true'/>"
                                 << "<allow eavesdrop='true'/>"
                                 << "<allow own='*'/></policy></busconfig>";
    auto started =
        ChildProgram::start({"dbus-daemon", "--nofork", "--config-file=" + configuration.string()}, {}, true);
    if (!started) return;
    daemon_ = *std::move(started);
    for (int i = 0; i < 500 && !std::filesystem::exists(socket_); ++i) {
        std::this_thread::sleep_for(10ms);  // for another process; there is nothing to wait on
    }
    ::setenv(variable_, address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    ::unsetenv(variable_);
}

}  // namespace velmora
