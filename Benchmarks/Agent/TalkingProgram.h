#pragma once

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Testing/XServerFixture.h"

namespace velmora {

/// A program that takes and gives JSON objects, one to a line.
class TalkingProgram {
public:
    TalkingProgram(const std::vector<std::string>& command, const ChildProgram::Environment& environment);
    ~TalkingProgram();
    TalkingProgram(const TalkingProgram&) = delete;
    TalkingProgram& operator=(const TalkingProgram&) = delete;

    void tell(const nlohmann::json& message);
    /// The next object that it says; none if it says nothing for so long, or has ended.
    std::optional<nlohmann::json> next(std::chrono::milliseconds limit);
    pid_t pid() const { return child_->pid(); }

private:
    int in_ = -1, out_ = -1;
    std::string heard_;  // what has come and is no whole line
    std::unique_ptr<ChildProgram> child_;
};

}  // namespace velmora
