#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Two file descriptors, lines coming in from one and going out to the other, each on a thread of its own
/// that nobody ever waits for: a read may block for ever, and so may a write to somebody who does not read.
class LineStreams {
public:
    struct Ends {
        int input = -1, output = -1;
    };
    static constexpr std::size_t longestLine = 32 << 20;  // bytes; a longer one is cut

    /// Both descriptors are ours from now on; each is closed when its thread has done with it.
    explicit LineStreams(Ends ends);
    ~LineStreams();  // on the queue of the callbacks; nothing is told afterwards
    LineStreams(const LineStreams&) = delete;
    LineStreams& operator=(const LineStreams&) = delete;

    /// Private copies of standard input and output. The standard ones lead to nothing and to standard error
    /// from then on, so that nothing that some library reads or prints gets among our lines.
    static Ends takeStandardStreams();
    /// A copy of standard error to write to, nothing to read from.
    static Ends standardError();

    /// Once. Both run on `main`, `onEnd` after the last line.
    void read(Queue& main, std::function<void(std::string line)> onLine, std::function<void()> onEnd);

    /// From any thread, at once. Lines leave in the order of their writing, each in one piece with a line
    /// feed; after a failed write nothing leaves any more.
    void write(std::string line);
    /// Waits until all that was written has left or cannot; false if that takes longer.
    bool flush(std::chrono::milliseconds limit);

private:
    struct Reading;
    struct Writing;
    const int input_;
    std::shared_ptr<Reading> reading_;
    std::shared_ptr<Writing> writing_;
};

}  // namespace velmora
