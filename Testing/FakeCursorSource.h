#pragma once

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/CursorSource.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A pointer that looks as the test says; at first it has no picture.
class FakeCursorSource final : public CursorSource {
public:
    explicit FakeCursorSource(Queue& main) : main_(main) {}

    void show(const CursorShape& shape) {
        shape_ = shape;
        for (One* one : *watching_) tell(*one);
    }
    int watches() const { return static_cast<int>(watching_->size()); }

    std::unique_ptr<Watch> watch(Told onShape) override {
        auto one = std::make_unique<One>(watching_, std::move(onShape));
        tell(*one);
        return one;
    }

private:
    struct One;
    using Watching = std::shared_ptr<std::vector<One*>>;
    struct One final : Watch {
        One(Watching all, Told told) : watching(std::move(all)), onShape(std::move(told)) {
            watching->push_back(this);
        }
        ~One() override { std::erase(*watching, this); }
        Watching watching;
        Told onShape;
        Liveness liveness;
    };
    void tell(One& one) {
        if (!shape_) return;
        main_.post(one.liveness.guard([onShape = one.onShape, shape = *shape_] { onShape(shape); }));
    }

    Queue& main_;
    std::optional<CursorShape> shape_;
    const Watching watching_ = std::make_shared<std::vector<One*>>();
};

}  // namespace velmora
