#pragma once

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace velmora {

/// The figures of one session, a row each second, as a CSV file for later study. One per session, made at
/// its first stream; lives on the main queue. A log that cannot be written is silently none: a full disk must
/// not disturb the picture.
class StatsLog {
public:
    /// Makes "viewer-{local time}-{server name}.csv" in `folder`, which is made too if need be.
    StatsLog(const std::filesystem::path& folder, std::string_view serverName,
             std::chrono::system_clock::time_point now = std::chrono::system_clock::now());

    void append(std::string_view row);
    void close();

    bool isOpen() const { return file_ != nullptr; }

private:
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Closer> file_;
};

}  // namespace velmora
