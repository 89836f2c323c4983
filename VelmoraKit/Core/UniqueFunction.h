#pragma once

#include <concepts>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace velmora {

template <class Signature>
class UniqueFunction;

/// A callable that is moved, never copied, so that a block may own what it captures.
/// Empty when default-made or moved from; calling an empty one is undefined, as with a null pointer.
template <class R, class... Args>
class UniqueFunction<R(Args...)> {
public:
    UniqueFunction() = default;
    UniqueFunction(std::nullptr_t) {}  // NOLINT: reads as "no callback"

    template <class F>
    requires(!std::same_as<std::remove_cvref_t<F>, UniqueFunction> &&
             std::is_invocable_r_v<R, std::decay_t<F>&, Args...>)
        UniqueFunction(F&& f)  // NOLINT: a callable is meant to convert
        : target_(std::make_unique<Holder<std::decay_t<F>>>(std::forward<F>(f))) {}

    UniqueFunction(UniqueFunction&&) noexcept = default;
    UniqueFunction& operator=(UniqueFunction&&) noexcept = default;

    explicit operator bool() const { return target_ != nullptr; }
    R operator()(Args... args) { return target_->call(std::forward<Args>(args)...); }

private:
    struct Callable {
        virtual ~Callable() = default;
        virtual R call(Args... args) = 0;
    };
    template <class F>
    struct Holder final : Callable {
        template <class G>
        explicit Holder(G&& g) : f(std::forward<G>(g)) {}
        R call(Args... args) override {
            if constexpr (std::is_void_v<R>) {
                std::invoke(f, std::forward<Args>(args)...);
            } else {
                return std::invoke(f, std::forward<Args>(args)...);
            }
        }
        F f;
    };
    std::unique_ptr<Callable> target_;
};

}  // namespace velmora
