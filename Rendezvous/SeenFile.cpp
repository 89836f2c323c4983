#include "Rendezvous/SeenFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "Rendezvous/ServiceLog.h"

namespace velmora {
namespace {

Failure failureAt(const std::string& path) {
    const int number = errno;
    return {fmt::format("{}: {}", path, std::strerror(number)), number};
}

bool writeAll(int file, std::string_view text) {
    while (!text.empty()) {
        const auto written = ::write(file, text.data(), text.size());
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
    }
    return ::fsync(file) == 0;
}

}  // namespace

Status readSeenFile(const std::string& path, SeenHosts& seen, SeenHosts::Time now) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) return Done{};
        return failureAt(path);
    }
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad()) return failureAt(path);
    if (text.empty()) return Done{};
    const auto bad = seen.readFile(text, now);
    if (!bad) return Failure{fmt::format("{} is no list of seen hosts", path)};
    if (*bad > 0) serviceLog(fmt::format("{}: {} lines made no sense and are left out", path, *bad));
    return Done{};
}

Status writeSeenFile(const std::string& path, const std::string& text) {
    const std::string fresh = path + ".new";
    const int file = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) return failureAt(fresh);
    const bool whole = writeAll(file, text);
    const Failure failure = whole ? Failure{} : failureAt(fresh);
    ::close(file);
    if (!whole) {
        ::unlink(fresh.c_str());
        return failure;
    }
    if (::rename(fresh.c_str(), path.c_str()) != 0) return failureAt(path);
    return Done{};
}

}  // namespace velmora
