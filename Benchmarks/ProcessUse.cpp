#include "Benchmarks/ProcessUse.h"

#include <fmt/format.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace velmora {
namespace {

std::string contentOf(const std::string& file) {
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

}  // namespace velmora
