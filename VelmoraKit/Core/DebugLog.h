#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The program's one diary: a bounded list of short lines in memory, each also passed to the system log.
/// One process can be host and viewer at once, so each line carries its side.
/// Any thread may log; observers hear of it on the main queue, in order, after the call has returned.
class DebugLog {
public:
    enum class Source { viewer, server };
    struct Entry {
        std::chrono::system_clock::time_point date;
        Source source;
        std::string text;
    };
    using Sink = std::function<void(Source, std::string_view text)>;
    /// An entry that was added; none when the list was cleared.
    using Observer = std::function<void(const std::optional<Entry>&)>;

    static constexpr std::size_t maxEntries = 5000;
    static constexpr std::size_t longestLine = 8192;  // bytes; what peers say of themselves goes in as well

    static DebugLog& shared();

    /// Control characters become spaces, and what is too long is cut.
    void log(std::string_view text, Source source);
    std::vector<Entry> entries() const;
    void clear();

    /// All entries as lines "HH:mm:ss.SSS  SOURCE  text" in local time, joined by a line feed.
    std::string plainText() const;
    static std::string lineOf(const Entry& entry);
    static std::string_view wordFor(Source source);

    /// The system log. Called on the logging thread, outside the lock; must be thread-safe. Set at start.
    void setSink(Sink sink);
    /// Where observers are told. `main` outlives every later call that logs, or is taken back with nullptr.
    /// What was told before may still be on its way then. Gives the entries of this moment: what follows
    /// them, and nothing of them, is told to `observer`.
    std::vector<Entry> setObserver(Queue* main, Observer observer);

private:
    void notifyLocked(std::optional<Entry> entry);

    mutable std::mutex lock_;  // guards the fields below; posting to the main queue is all it covers besides
    std::deque<Entry> storage_;
    std::shared_ptr<const Sink> sink_;
    std::shared_ptr<const Observer> observer_;
    Queue* main_ = nullptr;
};

/// A line of the viewer's side, and one of the host's. Bad news begins with "⚠︎ ".
void debugLog(std::string_view text);
void hostLog(std::string_view text);

}  // namespace velmora
