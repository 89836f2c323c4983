#include "Tests/EndToEnd/ProcessFigures.h"

#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "Tests/EndToEnd/Programs.h"

namespace velmora {

ProcessFigures ProcessFigures::of(pid_t process) {
    const std::filesystem::path folder = fmt::format("/proc/{}", process);
    ProcessFigures figures;
    std::istringstream status(contentOf(folder / "status"));
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") status >> figures.residentKiB;
        if (word == "Threads:") status >> figures.threads;
    }
    std::error_code ignored;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder / "fd", ignored))
        ++figures.descriptors;
    const std::string stat = contentOf(folder / "stat");
    // The name of the program may hold anything; the times are the 12th and 13th word behind it.
    std::istringstream times(stat.substr(std::min(stat.rfind(')') + 1, stat.size())));
    std::string skipped;
    for (int i = 0; i < 11; ++i) times >> skipped;
    double user = 0, system = 0;
    times >> user >> system;
    figures.cpuSeconds = (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return figures;
}

}  // namespace velmora
