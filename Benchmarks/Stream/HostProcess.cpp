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

HostProcess::HostProcess(const std::string& program, const XServerFixture& server,
                         const std::string& preferences) {
    const auto folder = folder_.path().string();
    std::filesystem::create_directories(folder_ / "config" / "velmora");
    std::ofstream(folder_ / "config" / "velmora" / "preferences.json") << preferences;
    const auto output = folder_ / "output";
    auto started = server.run({"sh", "-c", fmt::format("exec '{}' >'{}' 2>&1", program, output.string())},
                              {"XDG_CONFIG_HOME=" + folder + "/config", "XDG_DATA_HOME=" + folder + "/data",
                               "XDG_STATE_HOME=" + folder + "/state", "DBUS_SESSION_BUS_ADDRESS=disabled:",
                               "DESKTOP_AUTOSTART_ID=benchmark"});  // no window over what is measured
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
