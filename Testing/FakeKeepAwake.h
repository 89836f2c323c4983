#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/KeepAwake.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Keeps nothing awake, and remembers what was asked.
class FakeKeepAwake final : public KeepAwake {
public:
    explicit FakeKeepAwake(Queue& main) : main_(main) {}

    /// What every assertion asked for from now on ends with; holds if none.
    std::optional<Failure> failure;
    std::vector<std::string> userActivities;

    int systemAssertions() const { return counts_->system; }
    int displayAssertions() const { return counts_->display; }
    int activities() const { return counts_->activities; }

    std::unique_ptr<Assertion> preventIdleSystemSleep(const std::string&, Outcome outcome) override {
        return hold(&Counts::system, std::move(outcome));
    }
    std::unique_ptr<Assertion> preventIdleDisplaySleep(const std::string&, Outcome outcome) override {
        return hold(&Counts::display, std::move(outcome));
    }
    void declareUserActivity(const std::string& name) override { userActivities.push_back(name); }
    std::unique_ptr<Assertion> beginActivity(const std::string&) override {
        return std::make_unique<Held>(counts_, &Counts::activities, 1);
    }

private:
    struct Counts {
        int system = 0, display = 0, activities = 0;
    };
    struct Held final : Assertion {
        Held(std::shared_ptr<Counts> all, int Counts::*one, int held)
            : counts(std::move(all)), which(one), weight(held) {
            (*counts).*which += weight;
        }
        ~Held() override { (*counts).*which -= weight; }
        std::shared_ptr<Counts> counts;
        int Counts::*which;
        int weight;
        Liveness liveness;
    };
    std::unique_ptr<Assertion> hold(int Counts::*which, Outcome outcome) {
        auto held = std::make_unique<Held>(counts_, which, failure ? 0 : 1);
        main_.post(held->liveness.guard([outcome = std::move(outcome), failure = failure] {
            if (outcome) outcome(failure ? Status(*failure) : Status(Done{}));
        }));
        return held;
    }

    Queue& main_;
    const std::shared_ptr<Counts> counts_ = std::make_shared<Counts>();
};

}  // namespace velmora
