#pragma once

#include <memory>
#include <string>

#include "Benchmarks/ProcessUse.h"
#include "Testing/ScratchFolder.h"
#include "Testing/XServerFixture.h"

namespace velmora {

/// The built program as a host on a display, with preferences and secrets of its own.
class HostProcess {
public:
    /// `preferences` is the content of the preferences file. Ends the benchmark in words if the host does not
    /// listen within ten seconds.
    HostProcess(const std::string& program, const XServerFixture& server, const std::string& preferences);

    const std::string& password() const { return password_; }
    ProcessUse use() const { return useOf(child_->pid()); }

private:
    ScratchFolder folder_;
    std::unique_ptr<ChildProgram> child_;
    std::string password_;
};

}  // namespace velmora
