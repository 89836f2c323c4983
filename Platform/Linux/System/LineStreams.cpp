#include "Platform/Linux/System/LineStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "VelmoraKit/Core/LineAssembler.h"

namespace velmora {

/// What the reading thread shares with us, and keeps when we have gone.
struct LineStreams::Reading {
    std::mutex lock;
    Queue* main = nullptr;  // guarded by `lock`; none once nobody listens

    // On the main queue.
    std::function<void(std::string)> onLine;
    std::function<void()> onEnd;
    bool isHeard = true;

    void post(Queue::Block block) {
        std::lock_guard guard(lock);
        if (main) main->post(std::move(block));
    }
};

struct LineStreams::Writing {
    explicit Writing(int file) : output(file) {}

    const int output;
    std::mutex lock;  // guards what follows
    std::condition_variable changed;
    std::deque<std::string> lines;
    bool isBusy = false;  // a line is on its way
    bool hasFailed = false;
    bool isOver = false;
};

namespace {

/// How many bytes came; 0 at the end, whatever it is.
std::size_t readSome(int file, std::array<char, 65536>& into) {
    for (;;) {
        const auto count = ::read(file, into.data(), into.size());
        if (count >= 0) return static_cast<std::size_t>(count);
        if (errno != EINTR) return 0;
    }
}

bool writeAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto count = ::write(file, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

}  // namespace

LineStreams::LineStreams(Ends ends)
    : input_(ends.input),
      reading_(std::make_shared<Reading>()),
      writing_(std::make_shared<Writing>(ends.output)) {
    std::thread([writing = writing_] {
        std::unique_lock guard(writing->lock);
        for (;;) {
            writing->changed.wait(guard, [&] { return !writing->lines.empty() || writing->isOver; });
            if (writing->isOver) break;
            const std::string line = std::move(writing->lines.front());
            writing->lines.pop_front();
            writing->isBusy = true;
            guard.unlock();
            const bool written = writeAll(writing->output, line);
            guard.lock();
            writing->isBusy = false;
            writing->hasFailed = writing->hasFailed || !written;
            if (writing->hasFailed) writing->lines.clear();
            writing->changed.notify_all();
        }
        guard.unlock();
        ::close(writing->output);
    }).detach();
}

LineStreams::~LineStreams() {
    if (!reading_->onEnd) ::close(input_);  // else it is the thread's
    {
        std::lock_guard guard(reading_->lock);
        reading_->main = nullptr;
    }
    reading_->isHeard = false;
    std::lock_guard guard(writing_->lock);
    writing_->isOver = true;
    writing_->changed.notify_all();
}

LineStreams::Ends LineStreams::takeStandardStreams() {
    const Ends ends{.input = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1),
                    .output = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)};
    const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(nothing, STDIN_FILENO);
    ::close(nothing);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    return ends;
}

LineStreams::Ends LineStreams::standardError() {
    return {.output = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)};
}

void LineStreams::read(Queue& main, std::function<void(std::string line)> onLine,
                       std::function<void()> onEnd) {
    reading_->main = &main;
    reading_->onLine = std::move(onLine);
    reading_->onEnd = std::move(onEnd);
    std::thread([reading = reading_, input = input_] {
        LineAssembler lines(longestLine);
        lines.onLine = [&](std::string line) {
            reading->post([reading, line = std::move(line)]() mutable {
                if (reading->isHeard) reading->onLine(std::move(line));
            });
        };
        std::array<char, 65536> buffer;
        while (const std::size_t count = readSome(input, buffer)) lines.take({buffer.data(), count});
        lines.finish();
        ::close(input);
        reading->post([reading] {
            if (reading->isHeard) reading->onEnd();
        });
    }).detach();
}

void LineStreams::write(std::string line) {
    line += '\n';
    std::lock_guard guard(writing_->lock);
    if (writing_->hasFailed) return;
    writing_->lines.push_back(std::move(line));
    writing_->changed.notify_all();
}

bool LineStreams::flush(std::chrono::milliseconds limit) {
    std::unique_lock guard(writing_->lock);
    return writing_->changed.wait_for(guard, limit,
                                      [&] { return writing_->lines.empty() && !writing_->isBusy; });
}

}  // namespace velmora
