#include "Tests/EndToEnd/Programs.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace velmora {

namespace {

int countOf(std::string_view words, std::string_view text) {
    int count = 0;
    for (auto at = text.find(words); at != std::string_view::npos; at = text.find(words, at + words.size()))
        ++count;
    return count;
}

}  // namespace

std::chrono::milliseconds within(double seconds) {
    static const double slowness = [] {
        const char* text = std::getenv("VELMORA_TEST_SLOWNESS");
        return text ? std::max(std::atof(text), 1.0) : 1.0;
    }();
    return std::chrono::milliseconds(static_cast<int>(seconds * slowness * 1000));
}

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

RunningProgram::RunningProgram(const std::vector<std::string>& command, const Place& place) {
    static int count = 0;
    const int number = ++count;
    std::filesystem::create_directories(place.home / "run");
    std::filesystem::permissions(place.home / "run", std::filesystem::perms::owner_all);
    output_ = place.home / fmt::format("output-{}", number);
    std::string redirection = fmt::format(">'{}' 2>&1", output_.string());
    if (place.takesLines) {
        const auto pipe = (place.home / fmt::format("input-{}", number)).string();
        mkfifo(pipe.c_str(), 0600);
        input_ = open(pipe.c_str(), O_RDWR | O_CLOEXEC);  // for writing alone it would wait for the reader
        redirection += fmt::format(" <'{}'", pipe);
    }
    std::vector<std::string> arguments = {"sh", "-c", "exec \"$@\" " + redirection, "sh"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    const std::string home = place.home.string();
    ChildProgram::Environment environment = {
        "HOME=" + home,
        "XDG_CACHE_HOME=" + home + "/cache",
        "XDG_CONFIG_HOME=" + home + "/config",
        "XDG_DATA_HOME=" + home + "/data",
        "XDG_STATE_HOME=" + home + "/state",
        "XDG_RUNTIME_DIR=" + home + "/run",
        "DBUS_SESSION_BUS_ADDRESS=disabled:",
        "VELMORA_SIGNALING=" + place.rendezvous,
        "QT_WAYLAND_DISABLE_WINDOWDECORATION=1",
        "DESKTOP_AUTOSTART_ID=test",  // without a tray no window opens by itself
        "XAUTHORITY",
        place.wayland ? "XDG_SESSION_TYPE" : "XDG_SESSION_TYPE=x11",
        place.wayland ? "WAYLAND_DISPLAY=" + *place.wayland : "WAYLAND_DISPLAY",
        place.display ? "DISPLAY=" + *place.display : "DISPLAY"};
    environment.insert(environment.end(), place.environment.begin(), place.environment.end());
    if (auto child = ChildProgram::start(arguments, environment)) child_ = std::move(*child);
}

RunningProgram::~RunningProgram() {
    child_.reset();
    if (input_ >= 0) close(input_);
}

bool RunningProgram::says(std::string_view words, int times, std::chrono::milliseconds limit) const {
    return eventually([&] { return countOf(words, said()) >= times; }, limit);
}

void RunningProgram::tell(const std::string& line) {
    const std::string text = line + '\n';
    if (write(input_, text.data(), text.size()) < 0) return;  // `says` waits in vain then
}

}  // namespace velmora
