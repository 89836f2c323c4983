#pragma once

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/TextFocusSource.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A desktop on which the focus is where the test puts it.
class FakeTextFocusSource final : public TextFocusSource {
public:
    explicit FakeTextFocusSource(Queue& main) : main_(main) {}

    void focus(const std::optional<FocusedElement>& element) {
        focused_ = element;
        for (One* one : *watching_) tell(*one);
    }
    /// Programs that do not answer: nobody is told anything at the beginning.
    bool isSilent = false;
    int watches() const { return static_cast<int>(watching_->size()); }

    std::unique_ptr<Watch> watch(Told onFocus) override {
        auto one = std::make_unique<One>(watching_, std::move(onFocus));
        if (!isSilent) tell(*one);
        return one;
    }

private:
    struct One;
    using Watching = std::shared_ptr<std::vector<One*>>;
    struct One final : Watch {
        One(Watching all, Told told) : watching(std::move(all)), onFocus(std::move(told)) {
            watching->push_back(this);
        }
        ~One() override { std::erase(*watching, this); }
        Watching watching;
        Told onFocus;
        Liveness liveness;
    };
    void tell(One& one) {
        main_.post(one.liveness.guard([onFocus = one.onFocus, focused = focused_] { onFocus(focused); }));
    }

    Queue& main_;
    std::optional<FocusedElement> focused_;
    const Watching watching_ = std::make_shared<std::vector<One*>>();
};

}  // namespace velmora
