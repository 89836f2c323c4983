#include "Platform/Linux/Accessibility/AtSpiTextFocusSource.h"

#include <fmt/format.h>

#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Accessibility/AccessibilityBus.h"
#include "Platform/Linux/Accessibility/GlibThread.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

namespace {

/// A window of a few hundred elements is looked through in a tenth of a second; a long document would take
/// minutes.
constexpr int mostQuestions = 400;

}  // namespace

/// One watch; lives on the thread.
class AtSpiTextFocusSource::Listener {
public:
    Listener(std::shared_ptr<Complaint> complaint, Told tell)
        : complaint_(std::move(complaint)), tell_(std::move(tell)) {
        bus_.onFocus = [this](const AtSpiObject& object, bool isFocused) { handleFocus(object, isFocused); };
        bus_.onDeactivated = [this](const std::string& program) { handleAway(program); };
        bus_.onGone = bus_.onDeactivated;
        bus_.onClosed = [this] {
            complain("the accessibility bus has ended");
            lose();
        };
    }

    void start() {
        bus_.connect([this](const Status& status) {
            if (status) return look();
            complain(status.error().text);
            tell_(std::nullopt);
        });
    }

private:
    void complain(const std::string& reason) {
        if (std::exchange(complaint_->isMade, true)) return;
        hostLog(fmt::format("⚠︎ Not known here whether a text field has the keyboard focus: {}", reason));
    }

    // What programs tell

    void handleFocus(const AtSpiObject& object, bool isFocused) {
        isLooking_ = false;  // this is newer
        if (isFocused) {
            focused_ = object;
            describe();
        } else if (focused_ == object) {
            lose();
        }
    }

    /// Not every toolkit takes the focus back when its window loses the keys.
    void handleAway(const std::string& program) {
        if (focused_ && focused_->program == program) lose();
    }

    void lose() {
        focused_.reset();
        tell_(std::nullopt);
    }

    /// Asks what has the focus. One question at a time: the focus may move faster than programs answer.
    void describe() {
        if (std::exchange(isAsking_, true)) {
            isOutdated_ = true;
            return;
        }
        isOutdated_ = false;
        bus_.readRole(*focused_, [this, object = *focused_](Result<std::uint32_t> role) {
            bus_.readStates(object, [this, object, role](Result<AtSpiStates> states) {
                isAsking_ = false;
                if (!focused_) return;
                if (isOutdated_ || focused_ != object) return describe();
                if (!role || !states) return tell_(std::nullopt);
                tell_(focusedElementOf(*role, *states));
            });
        });
    }

    // What was there before we listened

    struct Step {
        AtSpiObject object;
        enum class Kind { desktop, program, window, element } kind = Kind::desktop;
    };

    void look() {
        isLooking_ = true;
        steps_.push_back({AccessibilityBus::root(), Step::Kind::desktop});
        takeStep();
    }

    void takeStep() {
        if (!isLooking_) return;
        if (steps_.empty() || questions_ >= mostQuestions) return endLooking();
        const Step step = std::move(steps_.front());
        steps_.pop_front();
        if (step.kind == Step::Kind::desktop || step.kind == Step::Kind::program) return expand(step);
        ++questions_;
        bus_.readStates(step.object, [this, step](Result<AtSpiStates> states) {
            if (!isLooking_) return;
            using State = AtSpiStates::State;
            if (!states) return takeStep();
            if (step.kind == Step::Kind::window && !states->has(State::active)) return takeStep();
            // A window that is all one field is both.
            if (states->has(State::focused)) {
                isLooking_ = false;
                focused_ = step.object;
                return describe();
            }
            if (step.kind == Step::Kind::element && !states->has(State::showing)) return takeStep();
            expand(step);
        });
    }

    void expand(const Step& step) {
        ++questions_;
        bus_.readChildren(step.object, [this, step](Result<std::vector<AtSpiObject>> children) {
            if (!isLooking_) return;
            for (AtSpiObject& child : children ? *children : std::vector<AtSpiObject>()) {
                if (steps_.size() >= mostQuestions) break;
                steps_.push_back({std::move(child), kindBelow(step.kind)});
            }
            takeStep();
        });
    }

    static Step::Kind kindBelow(Step::Kind kind) {
        switch (kind) {
            case Step::Kind::desktop:
                return Step::Kind::program;
            case Step::Kind::program:
                return Step::Kind::window;
            case Step::Kind::window:
            case Step::Kind::element:
                break;
        }
        return Step::Kind::element;
    }

    void endLooking() {
        isLooking_ = false;
        steps_.clear();
        tell_(std::nullopt);
    }

    const std::shared_ptr<Complaint> complaint_;
    const Told tell_;
    std::optional<AtSpiObject> focused_;
    bool isAsking_ = false, isOutdated_ = false;
    bool isLooking_ = false;
    std::deque<Step> steps_;
    int questions_ = 0;
    AccessibilityBus bus_;  // last: nothing of ours is called once it is gone
};

class AtSpiTextFocusSource::Token final : public Watch {
public:
    explicit Token(std::weak_ptr<GlibThread> thread) : thread_(std::move(thread)) {}
    ~Token() override {
        if (const auto thread = thread_.lock())
            thread->post([listener = std::move(listener)]() mutable { listener.reset(); });
    }
    Liveness liveness;
    std::shared_ptr<std::unique_ptr<Listener>> listener = std::make_shared<std::unique_ptr<Listener>>();

private:
    const std::weak_ptr<GlibThread> thread_;
};

AtSpiTextFocusSource::AtSpiTextFocusSource(Queue& main)
    : main_(main), complaint_(std::make_shared<Complaint>()) {}

AtSpiTextFocusSource::~AtSpiTextFocusSource() = default;

std::unique_ptr<TextFocusSource::Watch> AtSpiTextFocusSource::watch(Told onFocus) {
    assertOn(main_);
    if (!thread_) thread_ = std::make_shared<GlibThread>("accessibility");
    auto token = std::make_unique<Token>(thread_);
    thread_->post([listener = token->listener, complaint = complaint_, &main = main_,
                   told = token->liveness.guard(std::move(onFocus))] {
        *listener = std::make_unique<Listener>(complaint, [&main, told](const auto& focused) {
            main.post([told, focused]() mutable { told(focused); });
        });
        (*listener)->start();
    });
    return token;
}

}  // namespace velmora
