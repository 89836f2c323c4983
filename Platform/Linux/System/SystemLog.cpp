#include "Platform/Linux/System/SystemLog.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <utility>

#include "Platform/Linux/System/PrivateFile.h"

namespace velmora {
namespace {

constexpr const char* identifier = "velmora";

/// A datagram socket connected to `path`; -1 if nobody listens there.
int connectTo(const std::filesystem::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.native().size() >= sizeof address.sun_path) return -1;
    std::memcpy(address.sun_path, path.c_str(), path.native().size() + 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) return -1;
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return descriptor;
    }
    ::close(descriptor);
    return -1;
}

class Descriptor {
public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    ~Descriptor() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return descriptor_; }

private:
    const int descriptor_;
};

/// The journal's own protocol: a datagram of fields. A value may hold line feeds only in the binary form,
/// with its length as 8 bytes, little-endian.
std::string journalDatagram(std::string_view text) {
    std::string datagram = fmt::format("SYSLOG_IDENTIFIER={}\nPRIORITY=6\nMESSAGE\n", identifier);
    for (int shift = 0; shift < 64; shift += 8) {
        datagram += static_cast<char>(static_cast<std::uint64_t>(text.size()) >> shift);
    }
    datagram += text;
    datagram += '\n';
    return datagram;
}

/// RFC 3164 as local daemons take it: facility user, level info.
std::string syslogDatagram(std::string_view text) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    return fmt::format("<14>{} {:2} {:02}:{:02}:{:02} {}[{}]: {}", months[local.tm_mon], local.tm_mday,
                       local.tm_hour, local.tm_min, local.tm_sec, identifier, ::getpid(), text);
}

DebugLog::Sink datagramSink(int descriptor, std::string (*datagramOf)(std::string_view)) {
    return [socket = std::make_shared<Descriptor>(descriptor), datagramOf](DebugLog::Source source,
                                                                           std::string_view text) {
        const auto datagram = datagramOf(fmt::format("{} {}", DebugLog::wordFor(source), text));
        [[maybe_unused]] const auto sent =
            ::send(socket->get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
    };
}

/// Several processes append to one file: each line is one write.
class LogFile {
public:
    explicit LogFile(std::filesystem::path path) : path_(std::move(path)) {}

    void append(const std::string& line) {
        std::lock_guard lock(mutex_);
        std::error_code ignored;
        if (std::filesystem::file_size(path_, ignored) > SystemLog::maxFileSize && !ignored) {
            auto old = path_;
            old += ".old";
            std::filesystem::rename(path_, old, ignored);
        }
        const Descriptor file(
            ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (file.get() < 0) return;
        [[maybe_unused]] const auto written = ::write(file.get(), line.data(), line.size());
    }

private:
    const std::filesystem::path path_;
    std::mutex mutex_;
};

DebugLog::Sink fileSink(const std::filesystem::path& path) {
    [[maybe_unused]] const auto made = makePrivateFolder(path.parent_path());
    return [file = std::make_shared<LogFile>(path)](DebugLog::Source source, std::string_view text) {
        const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
        std::tm local{};
        const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
        ::localtime_r(&seconds, &local);
        file->append(fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} {} {}\n", local.tm_year + 1900,
                                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                                 DebugLog::wordFor(source), text));
    };
}

}  // namespace

DebugLog::Sink SystemLog::makeSink(const Places& places) {
    if (const int journal = connectTo(places.journalSocket); journal >= 0) {
        return datagramSink(journal, journalDatagram);
    }
    if (const int syslog = connectTo(places.syslogSocket); syslog >= 0) {
        return datagramSink(syslog, syslogDatagram);
    }
    return fileSink(places.file.empty() ? stateFolder() / "velmora.log" : places.file);
}

}  // namespace velmora
