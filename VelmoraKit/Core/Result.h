#pragma once

#include <cassert>
#include <string>
#include <utility>
#include <variant>

namespace velmora {

/// Why something did not work: words for a log line or a person, and the number behind them
/// (an errno, a library's status) where there is one.
struct Failure {
    std::string text;
    int code = 0;
    bool operator==(const Failure&) const = default;
};

/// A value, or why there is none. Stands where C++23 would have std::expected.
/// Asking for the side that is not there is a programming error.
template <class T, class E = Failure>
class [[nodiscard]] Result {
public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}  // NOLINT: `return value;`
    Result(E error) : state_(std::in_place_index<1>, std::move(error)) {}  // NOLINT: `return Failure{...};`

    bool ok() const { return state_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return *checked<0>(); }
    const T& value() const& { return *std::as_const(*this).template checked<0>(); }
    T&& value() && { return std::move(*checked<0>()); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T&& operator*() && { return std::move(*this).value(); }
    T* operator->() { return checked<0>(); }
    const T* operator->() const { return checked<0>(); }

    const E& error() const { return *checked<1>(); }
    T valueOr(T fallback) && { return ok() ? std::move(*checked<0>()) : std::move(fallback); }

private:
    template <int I>
    auto* checked() {
        auto* side = std::get_if<I>(&state_);
        assert(side && "Result asked for the side it does not hold");
        return side;
    }
    template <int I>
    const auto* checked() const {
        const auto* side = std::get_if<I>(&state_);
        assert(side && "Result asked for the side it does not hold");
        return side;
    }
    std::variant<T, E> state_;
};

/// For operations that give nothing but success.
struct Done {
    bool operator==(const Done&) const = default;
};
using Status = Result<Done>;

}  // namespace velmora
