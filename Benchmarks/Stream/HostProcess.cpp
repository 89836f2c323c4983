#include "Benchmarks/Stream/HostProcess.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace velmora {

namespace {

std::string contentOf(const std::filesystem::path& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

}  // namespace

ProcessUse useOf(pid_t pid) {
    ProcessUse use;
    const std::string stat = contentOf(fmt::format("/proc/{}/stat", pid));
    const auto end = stat.rfind(')');
    if (end == std::string::npos) return use;
    std::istringstream fields(stat.substr(end + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i) fields >> skipped;
    double user = 0, system = 0;
    fields >> user >> system;
    use.cpuSeconds = (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
    std::istringstream memory(contentOf(fmt::format("/proc/{}/statm", pid)));
    double total = 0, resident = 0;
    memory >> total >> resident;
    use.megabytes = resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
    return use;
}

HostProcess::HostProcess(const std::string& program, const XServerFixture& server,
                         const std::string& preferences) {
    const auto folder = folder_.path().string();
    std::filesystem::create_directories(folder_ / "config" / "velmora");
    std::ofstream(folder_ / "config" / "velmora" / "preferences.json") << preferences;
    const auto output = folder_ / "output";
    auto started = server.run({"sh", "-c", fmt::format("exec '{}' >'{}' 2>&1", program, output.string())},
                              {"XDG_CONFIG_HOME=" + folder + "/config", "XDG_DATA_HOME=" + folder + "/data",
                               "XDG_STATE_HOME=" + folder + "/state", "DBUS_SESSION_BUS_ADDRESS=disabled:"});
    if (started) child_ = std::move(started).value();
    for (int tries = 0; child_ && tries < 100; ++tries) {
        const std::string text = contentOf(output);
        const std::string mark = "password ";
        const auto at = text.find(mark);
        if (at != std::string::npos && text.find("waiting for a viewer") != std::string::npos) {
            password_ = text.substr(at + mark.size(), 7);
            std::erase(password_, ' ');
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    fmt::print(stderr, "The host did not start:\n{}\n", contentOf(output));
    std::exit(1);
}

}  // namespace velmora
