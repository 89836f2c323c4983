#pragma once

#include <functional>
#include <memory>
#include <optional>

namespace velmora {

/// What the keys go to, as far as it says of itself.
struct FocusedElement {
    enum class Role { other, textField, textArea, searchField, comboBox, secureTextField };
    Role role = Role::other;
    bool isEditable = false;  // whatever its role
    bool operator==(const FocusedElement&) const = default;
};

/// Which element of which program has the keyboard focus. Lives on the main queue; nothing blocks it.
class TextFocusSource {
public:
    /// Ends with its destruction, which may come before its source's or after it.
    class Watch {
    public:
        virtual ~Watch() = default;
    };
    /// On the main queue. None: nothing has the focus, or nobody knows what.
    using Told = std::function<void(std::optional<FocusedElement>)>;

    virtual ~TextFocusSource() = default;

    /// Tells once what has the focus, never from inside the call, and again after each change. What is told
    /// again may be the same.
    [[nodiscard]] virtual std::unique_ptr<Watch> watch(Told onFocus) = 0;
};

}  // namespace velmora
