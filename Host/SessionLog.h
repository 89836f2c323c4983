#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "Host/LineBudget.h"
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
    static constexpr LineBudget::Parameters budget{.mostAtOnce = 100, .perSecond = 10};

    explicit SessionLog(std::shared_ptr<MessageConnection> connection,
                        const LineBudget::Parameters& parameters = budget)
        : connection_(std::move(connection)), budget_(std::make_shared<LineBudget>(parameters)) {}

    void operator()(const std::string& line) const {
        const auto leftOut = budget_->spend(connection_->queue().now());
        if (!leftOut) return;
        if (*leftOut > 0) write(fmt::format("({} lines left out)", *leftOut));
        write(line);
    }

private:
    void write(const std::string& line) const {
        hostLog(line);
        if (takesAnswers(*connection_)) connection_->send(MessageType::log, viewOf(line));
    }

    std::shared_ptr<MessageConnection> connection_;
    std::shared_ptr<LineBudget> budget_;  // of all copies together
};

}  // namespace velmora
