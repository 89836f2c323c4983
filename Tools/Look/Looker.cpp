#include "Tools/Look/Looker.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

namespace {

constexpr std::size_t longestWords = 2000;

HostClock::duration durationOf(LookStep::Seconds seconds) {
    return std::chrono::duration_cast<HostClock::duration>(seconds);
}

}  // namespace

Looker::Looker(ViewerOptions options, ViewerConnection::Services services, Queue& main, Queue& client,
               Settings settings, std::ostream& out, std::ostream& err)
    : main_(main),
      settings_(std::move(settings)),
      parameters_(),
      name_(options.name),
      out_(out),
      err_(err),
      viewer_(std::move(options), std::move(services), main, client) {
    viewer_.onEnded = [this](const ConnectionError& error) { handleEnd(error); };
    viewer_.onStats = [this](const ViewerStats::Snapshot& snapshot) { handleStats(snapshot); };
    viewer_.onDecodedFrame = [this, &main, alive = liveness_.weak()](const DecodedFrame& frame) {
        main.post([this, alive, isChange = frame.isChange] {
            if (!alive.expired()) handleFrame(isChange);
        });
    };
}

void Looker::start(std::optional<DisplayRequest> request) {
    if (settings_.printStats) out_ << ViewerStats::csvHeader << std::endl;
    timer_ = main_.after(durationOf(settings_.limit), [this] {
        fail(fmt::format("No picture from {} within {:g} s.", name_, settings_.limit.count()), hasFailed);
    });
    viewer_.start(request);
}

void Looker::add(LookStep step) {
    steps_.push_back(std::move(step));
    proceed();
}

void Looker::endScript() {
    scriptHasEnded_ = true;
    proceed();
}

void Looker::handleFrame(bool isChange) {
    if (isFinished_) return;
    if (isChange) restsSince_ = main_.now();
    if (!hasPicture_) {
        hasPicture_ = true;
        timer_.reset();
        return proceed();
    }
    if (!isChange || !std::exchange(awaitsChange_, false)) return;
    const std::chrono::duration<double, std::milli> took = main_.now() - lastInput_;
    out_ << fmt::format("changed after {:.1f} ms", took.count()) << std::endl;
    stepDone();
}

void Looker::handleStats(const ViewerStats::Snapshot& snapshot) {
    if (settings_.printStats) out_ << snapshot.overlay << '\n' << snapshot.csvRow << std::endl;
    if (statsFile_.is_open()) statsFile_ << snapshot.csvRow << std::endl;
}

void Looker::handleEnd(const ConnectionError& error) {
    // A host chooses some of these words.
    for (const std::string& words : {error.title, error.message, error.suggestion}) {
        if (!words.empty()) err_ << printableLine(words, longestWords) << '\n';
    }
    err_.flush();
    finish(hasFailed);
}

/// Does the next step, if there is one and its turn has come.
void Looker::proceed() {
    if (!hasPicture_ || isBusy_ || isFinished_) return;
    if (!steps_.empty()) {
        isBusy_ = true;
        std::visit([this](const auto& step) { perform(step); }, steps_.front().what);
    } else if (scriptHasEnded_) {
        finish(0);
    }
}

void Looker::stepDone() {
    timer_.reset();
    if (settings_.printSteps) out_ << "ok " << steps_.front().line << std::endl;
    steps_.pop_front();
    isBusy_ = false;
    // By way of the queue, or a long script would be a deep recursion.
    main_.post(liveness_.guard([this] { proceed(); }));
}

void Looker::perform(const LookStep::Input& step) {
    sendPaced(step.events(viewer_.streamSize()), durationOf(step.interval));
}

void Looker::sendPaced(std::vector<InputEvent> events, HostClock::duration interval) {
    lastInput_ = main_.now();
    const std::size_t together = interval > HostClock::duration::zero() ? 1 : events.size();
    for (std::size_t i = 0; i < together && i < events.size(); ++i) viewer_.sendInput(events[i]);
    if (together >= events.size()) return stepDone();
    events.erase(events.begin());
    timer_ = main_.after(interval, [this, events = std::move(events), interval]() mutable {
        sendPaced(std::move(events), interval);
    });
}

void Looker::perform(const LookStep::Wait& step) {
    timer_ = main_.after(durationOf(step.span), [this] { stepDone(); });
}

void Looker::perform(const LookStep::Settle& step) {
    // What was done just now takes a moment to show: rest counts from here at the earliest.
    restsSince_ = main_.now();
    settleDeadline_ = main_.now() + durationOf(step.limit);
    checkRest();
}

void Looker::checkRest() {
    const auto now = main_.now();
    const auto restedAt = restsSince_ + parameters_.quiet;
    if (now >= restedAt) return stepDone();
    if (now >= settleDeadline_) {
        err_ << "The picture still moves." << std::endl;
        return stepDone();
    }
    timer_ = main_.after(std::min(restedAt, settleDeadline_) - now, [this] { checkRest(); });
}

void Looker::perform(const LookStep::Change& step) {
    awaitsChange_ = true;
    if (lastInput_ == HostClock::time_point{}) lastInput_ = main_.now();  // then since now
    timer_ = main_.after(durationOf(step.limit), [this, limit = step.limit] {
        fail(fmt::format("No change within {:g} s.", limit.count()), hasFailed);
    });
}

void Looker::perform(const LookStep::SavePng& step) {
    const auto written = settings_.writePng(*viewer_.lastImage(), step.file);
    if (!written) return fail(written.error().text, hasFailed);
    stepDone();
}

void Looker::perform(const LookStep::RecordStats& step) {
    statsFile_.close();
    statsFile_.clear();
    statsFile_.open(step.file);
    statsFile_ << ViewerStats::csvHeader << std::endl;
    if (!statsFile_) return fail(fmt::format("Cannot write {}.", step.file), hasFailed);
    stepDone();
}

void Looker::perform(const LookStep::Mistake& step) {
    fail(step.words, notUnderstood);
}

void Looker::fail(const std::string& words, int exitCode) {
    if (isFinished_) return;
    err_ << words << std::endl;
    finish(exitCode);
}

void Looker::finish(int exitCode) {
    if (std::exchange(isFinished_, true)) return;
    timer_.reset();
    viewer_.close();
    if (const auto notify = onFinished) notify(exitCode);
}

}  // namespace velmora
