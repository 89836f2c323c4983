#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Testing/LinkPipe.h"
#include "Testing/XServerFixture.h"
#include "Tests/EndToEnd/SlowCable.h"

namespace velmora {

/// Two homes, each behind a router that shares one public address, and between them an internet with a server
/// in it: network namespaces that vanish with this object, also if the test dies. It takes root.
///
///     host 10.1.0.2 ── router 198.51.100.2 ── internet (server 192.0.2.1) ── router 203.0.113.2 ──
///     viewer 10.2.0.2
///
/// The routers keep a packet's port where they can, forget nothing within a test, and drop what nobody asked
/// for, as those that people have at home do.
class HomeNetworks {
public:
    struct Options {
        bool oneHome = false;   // the viewer is at the host's, 10.1.0.3
        bool openHost = false;  // the host's router passes on to it whatever comes to its port
        std::optional<LinkPipe::Direction> viewersLine{};  // what its router has to the internet, each way
    };
    explicit HomeNetworks(Options options);

    /// False where the system does not let us have namespaces, which is no fault of ours.
    bool areAllowed() const { return allowed_; }
    /// Why they do not stand; empty: they do.
    const std::string& error() const { return error_; }

    enum class Place { server, host, viewer };
    static constexpr const char* serverAddress = "192.0.2.1";
    static constexpr const char* hostAddress = "10.1.0.2";  // at home
    /// The command, to be run there.
    std::vector<std::string> at(Place place, std::vector<std::string> command) const;

    /// From now on nothing of UDP gets from one home to the other.
    void blockDirectPaths();
    /// The viewer's router loses all that it knew and takes ports below 50000, and those that it used before
    /// lead nowhere any more.
    void moveViewersPorts();
    /// The viewer's router forgets what UDP it let out, and nothing else, and takes ports below 50000 for it.
    void forgetViewersPorts();

private:
    using Namespace = std::unique_ptr<ChildProgram>;  // of a process that does nothing but live in it
    std::string run(const std::string& script) const;

    std::vector<Namespace> namespaces_;  // in the order of `names`
    std::optional<SlowCable> viewersLine_;
    bool allowed_ = true;
    std::string error_;
};

}  // namespace velmora
