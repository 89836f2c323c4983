#include "Platform/Linux/System/PrivateFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <system_error>
#include <thread>
#include <utility>

namespace velmora {
namespace {

Failure failureOf(std::string_view what, const std::filesystem::path& path, int error = errno) {
    return {fmt::format("{} {}: {}", what, path.string(), std::system_category().message(error)), error};
}

bool writeWhole(int descriptor, ByteView content) {
    while (!content.empty()) {
        const ssize_t written = ::write(descriptor, content.data(), content.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        content = content.subspan(static_cast<std::size_t>(written));
    }
    return true;
}

std::filesystem::path homeFolder() {
    if (const char* home = std::getenv("HOME"); home && *home == '/') return home;
    if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) return entry->pw_dir;
    return "/";
}

std::filesystem::path xdgFolder(const char* variable, const char* fallback) {
    if (const char* folder = std::getenv(variable); folder && *folder == '/') {
        return std::filesystem::path(folder) / "velmora";
    }
    return homeFolder() / fallback / "velmora";
}

}  // namespace

Result<std::optional<Bytes>> readPrivateFile(const std::filesystem::path& path, std::size_t limit) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        if (errno == ENOENT || errno == ENOTDIR) return std::optional<Bytes>();
        return failureOf("cannot open", path);
    }
    Bytes content;
    std::array<std::uint8_t, 16384> chunk;
    ssize_t got = 0;
    while ((got = ::read(descriptor, chunk.data(), chunk.size())) != 0) {
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) break;
        content.insert(content.end(), chunk.begin(), chunk.begin() + got);
        if (content.size() > limit) break;
    }
    const int error = errno;
    ::close(descriptor);
    if (got < 0) return failureOf("cannot read", path, error);
    if (content.size() > limit) return failureOf("cannot read", path, EFBIG);
    return std::optional(std::move(content));
}

Status replacePrivateFile(const std::filesystem::path& path, ByteView content) {
    static std::atomic<unsigned> serial{0};
    std::filesystem::path fresh = path;
    fresh += fmt::format(".{}-{}.tmp", ::getpid(), ++serial);
    const int descriptor = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0) return failureOf("cannot create", fresh);
    const bool written = writeWhole(descriptor, content) && ::fdatasync(descriptor) == 0;
    const int error = errno;
    ::close(descriptor);
    if (!written) {
        ::unlink(fresh.c_str());
        return failureOf("cannot write", fresh, error);
    }
    if (::rename(fresh.c_str(), path.c_str()) != 0) {
        const int renameError = errno;
        ::unlink(fresh.c_str());
        return failureOf("cannot replace", path, renameError);
    }
    return Done{};
}

Status makePrivateFolder(const std::filesystem::path& folder) {
    std::filesystem::path made;
    for (const auto& part : folder) {
        made /= part;
        if (::mkdir(made.c_str(), 0700) == 0 || errno == EEXIST || made == folder.root_path()) continue;
        // A read-only ancestor that exists answers EROFS or EACCES; the last one tells what matters.
        struct stat info {};
        if (::stat(made.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) continue;
        return failureOf("cannot create", made);
    }
    return Done{};
}

Result<FileLock> FileLock::take(const std::filesystem::path& sideFile) {
    using namespace std::chrono_literals;
    const int descriptor = ::open(sideFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) return failureOf("cannot open", sideFile);
    const auto end = std::chrono::steady_clock::now() + 2s;
    // flock has no time limit of its own, and holders keep it for milliseconds.
    while (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR && (errno != EWOULDBLOCK || std::chrono::steady_clock::now() > end)) {
            const int error = errno;
            ::close(descriptor);
            return failureOf("cannot lock", sideFile, error);
        }
        std::this_thread::sleep_for(2ms);
    }
    return FileLock(descriptor);
}

FileLock::FileLock(FileLock&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

FileLock::~FileLock() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

std::filesystem::path cacheFolder() {
    return xdgFolder("XDG_CACHE_HOME", ".cache");
}
std::filesystem::path configFolder() {
    return xdgFolder("XDG_CONFIG_HOME", ".config");
}
std::filesystem::path dataFolder() {
    return xdgFolder("XDG_DATA_HOME", ".local/share");
}
std::filesystem::path stateFolder() {
    return xdgFolder("XDG_STATE_HOME", ".local/state");
}

}  // namespace velmora
