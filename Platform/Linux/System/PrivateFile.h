#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Files of this user that nobody else reads, replaced whole: a reader sees the old bytes or the new ones.

/// The content; no value if there is no such file. A failure when it exists and cannot be read, or is longer
/// than `limit`.
Result<std::optional<Bytes>> readPrivateFile(const std::filesystem::path& path, std::size_t limit);

/// Writes a new file of mode 0600 beside `path` and renames it over it. Data are on the disk on return.
Status replacePrivateFile(const std::filesystem::path& path, ByteView content);

/// Makes the folder and those above it, mode 0700 where they are new.
Status makePrivateFolder(const std::filesystem::path& folder);

/// Holds the lock of a side file against other processes (and other holders in this one) until destroyed.
class FileLock {
public:
    /// Waits at most two seconds: a holder that was stopped must not stop us. A failure then.
    static Result<FileLock> take(const std::filesystem::path& sideFile);
    FileLock(FileLock&& other) noexcept;
    FileLock& operator=(FileLock&&) = delete;
    ~FileLock();

private:
    explicit FileLock(int descriptor) : descriptor_(descriptor) {}
    int descriptor_;
};

/// Where the XDG base directory specification puts our things: $NAME/velmora if the variable holds an
/// absolute path, else $HOME/`fallback`/velmora.
std::filesystem::path cacheFolder();   // XDG_CACHE_HOME, .cache
std::filesystem::path configFolder();  // XDG_CONFIG_HOME, .config
std::filesystem::path dataFolder();    // XDG_DATA_HOME, .local/share
std::filesystem::path stateFolder();   // XDG_STATE_HOME, .local/state

}  // namespace velmora
