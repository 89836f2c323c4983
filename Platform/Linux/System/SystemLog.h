#pragma once

#include <filesystem>
#include <memory>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

/// Where the diary's lines go beside the window: the journal if its socket is there, else syslog, else a
/// file. Lines of two sides are told apart by their word. What cannot be written is dropped: a log must not
/// hold up what it tells of.
class SystemLog {
public:
    struct Places {
        std::filesystem::path journalSocket = "/run/systemd/journal/socket";
        std::filesystem::path syslogSocket = "/dev/log";
        std::filesystem::path file;  // velmora/velmora.log under the XDG state folder if empty
    };
    /// A sink for DebugLog; any thread may call it.
    static DebugLog::Sink makeSink(const Places& places);
    static DebugLog::Sink makeSink() { return makeSink(Places()); }
    /// Makes it the sink of the program's diary.
    static void install() { DebugLog::shared().setSink(makeSink()); }

    /// A file that has grown past this is renamed with ".old" and begun anew.
    static constexpr std::size_t maxFileSize = 4 << 20;
};

}  // namespace velmora
