#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Transport/MessageConnection.h"

namespace velmora {

/// Lines that the viewer should read too: they go to the host's log and over the connection. Any thread.
class SessionLog {
public:
    /// Waits more than this, the viewer has stopped reading, and answers would pile up for as long as it
    /// asks: they are left out.
    static constexpr std::int64_t mostWaitingBytes = 16'000'000;
    static bool takesAnswers(const MessageConnection& connection) {
        return connection.pendingBytes() <= mostWaitingBytes;
    }

    /// Most lines answer something that the viewer asked for, and it may ask any number of times. A person
    /// causes a few in a second; what is more is counted, or it would wash everything else out of the log.
    struct Parameters {
        double mostAtOnce = 100;
        double perSecond = 10;
    };

    explicit SessionLog(std::shared_ptr<MessageConnection> connection)
        : SessionLog(std::move(connection), Parameters()) {}
    SessionLog(std::shared_ptr<MessageConnection> connection, Parameters parameters)
        : connection_(std::move(connection)), budget_(std::make_shared<Budget>(parameters)) {}

    void operator()(const std::string& line) const {
        const auto leftOut = budget_->spend(connection_->queue().now());
        if (!leftOut) return;
        if (*leftOut > 0) write(fmt::format("({} lines left out)", *leftOut));
        write(line);
    }

private:
    class Budget {
    public:
        explicit Budget(Parameters parameters) : parameters_(parameters), left_(parameters.mostAtOnce) {}

        /// Lines left out since the last one, if another may be written now.
        std::optional<std::size_t> spend(HostClock::time_point now) {
            const std::lock_guard guard(lock_);
            if (lastSpent_) {
                const std::chrono::duration<double> since = now - *lastSpent_;
                left_ = std::min(left_ + since.count() * parameters_.perSecond, parameters_.mostAtOnce);
            }
            lastSpent_ = now;
            if (left_ < 1) {
                ++leftOut_;
                return std::nullopt;
            }
            left_ -= 1;
            return std::exchange(leftOut_, 0);
        }

    private:
        const Parameters parameters_;
        std::mutex lock_;  // guards what follows
        double left_;
        std::optional<HostClock::time_point> lastSpent_;
        std::size_t leftOut_ = 0;
    };

    void write(const std::string& line) const {
        hostLog(line);
        if (takesAnswers(*connection_)) connection_->send(MessageType::log, viewOf(line));
    }

    std::shared_ptr<MessageConnection> connection_;
    std::shared_ptr<Budget> budget_;  // of all copies together
};

}  // namespace velmora
