#pragma once

#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Tools/Look/LookScript.h"
#include "VelmoraKit/Core/Queue.h"
#include "Viewer/Session/ViewerConnection.h"

namespace velmora {

/// A viewer without a window that does what a script says, one step after the other, from the first picture
/// on. Lives on the main queue.
class Looker {
public:
    /// What the program ends with.
    static constexpr int hasFailed = 1, notUnderstood = 2;

    struct Settings {
        LookStep::Seconds limit{30};  // for the first picture
        bool printStats = false;
        bool printSteps = false;  // "ok LINE" after each, for whoever writes the next one then
        std::function<Status(const Picture&, const std::string& file)> writePng;
    };
    struct Parameters {
        std::chrono::milliseconds quiet{300};  // a picture that has not changed for so long rests
    };

    /// All outlive us.
    Looker(ViewerOptions options, ViewerConnection::Services services, Queue& main, Queue& client,
           Settings settings, std::ostream& out, std::ostream& err);

    /// Last of all that it does, once.
    std::function<void(int exitCode)> onFinished;

    void start(std::optional<DisplayRequest> request);
    void add(LookStep step);
    /// No more steps come.
    void endScript();
    /// The script shall go no further.
    void fail(const std::string& words, int exitCode);

private:
    void handleFrame(bool isChange);
    void handleStats(const ViewerStats::Snapshot& snapshot);
    void handleEnd(const ConnectionError& error);
    void proceed();
    void stepDone();
    void perform(const LookStep::Input& step);
    void sendPaced(std::vector<InputEvent> events, HostClock::duration interval);
    void perform(const LookStep::Wait& step);
    void perform(const LookStep::Settle& step);
    void perform(const LookStep::Change& step);
    void perform(const LookStep::SavePng& step);
    void perform(const LookStep::RecordStats& step);
    void perform(const LookStep::Mistake& step);
    void checkRest();
    void finish(int exitCode);

    Queue& main_;
    const Settings settings_;
    const Parameters parameters_;
    const std::string name_;
    std::ostream& out_;
    std::ostream& err_;
    ViewerConnection viewer_;

    std::deque<LookStep> steps_;  // the first one is being done while `isBusy_`
    bool scriptHasEnded_ = false;
    bool hasPicture_ = false;
    bool isBusy_ = false;
    bool isFinished_ = false;
    bool awaitsChange_ = false;         // the step is a Change
    HostClock::time_point restsSince_;  // the last change, or the step's beginning
    HostClock::time_point settleDeadline_;
    HostClock::time_point lastInput_;  // when the last gesture was sent
    std::ofstream statsFile_;
    TimerToken timer_;
    Liveness liveness_;
};

}  // namespace velmora
