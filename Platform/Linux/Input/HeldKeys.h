#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>

namespace velmora {

/// What a modifier key does. `level3` chooses the third character of a key (AltGr).
enum class ModifierKind : std::uint8_t { shift, control, option, command, level3 };

/// A set of modifiers.
class ModifierSet {
public:
    constexpr ModifierSet() = default;
    constexpr ModifierSet(std::initializer_list<ModifierKind> kinds) {
        for (const ModifierKind kind : kinds) insert(kind);
    }
    constexpr bool contains(ModifierKind kind) const { return (bits_ & bit(kind)) != 0; }
    constexpr void insert(ModifierKind kind) { bits_ |= bit(kind); }
    constexpr void erase(ModifierKind kind) { bits_ &= static_cast<std::uint8_t>(~bit(kind)); }
    bool operator==(const ModifierSet&) const = default;

private:
    static constexpr std::uint8_t bit(ModifierKind kind) {
        return static_cast<std::uint8_t>(1u << static_cast<unsigned>(kind));
    }
    std::uint8_t bits_ = 0;
};

/// The keys and buttons that one session holds down, and how each event gets the modifiers it asks for on a
/// window system whose events carry none: by pressing modifier keys around it, and lifting those that are
/// held but must not count. Such adjustments stand until the key or button they were made for goes up, or
/// another one needs different ones; then what the person really holds is put back.
///
/// Option or command pressed and released with nothing in between opens menus. Where that would be our doing,
/// control is tapped in between.
class HeldKeys {
public:
    using Code = std::uint8_t;  // X11 key code, or X11 button
    enum class Device { key, button };
    using Emit = std::function<void(Device, Code, bool down)>;

    /// Which keys are modifiers here, and which one to press for each kind; 0 where there is none.
    struct Layout {
        std::map<Code, ModifierKind> kinds;
        std::array<Code, 5> keyFor{};
    };

    explicit HeldKeys(Emit emit) : emit_(std::move(emit)) {}
    void setLayout(Layout layout) { layout_ = std::move(layout); }

    /// Presses a key. A modifier key is just pressed; another one gets exactly `wanted`. A key that is held
    /// already is left to repeat by itself, unless it now asks for other modifiers: then it goes down anew.
    void pressKey(Code code, ModifierSet wanted);
    void releaseKey(Code code);  // nothing if we do not hold it
    void pressButton(Code button, ModifierSet wanted);
    void releaseButton(Code button);

    /// A key that goes down and up at once. Adjustments stay for the next one; end with `putBack`.
    void tapKey(Code code, ModifierSet wanted);
    void tapButton(Code button, ModifierSet wanted);
    /// Undoes all adjustments.
    void putBack();

    void releaseEverything();

private:
    struct Input {
        Device device;
        Code code;
        auto operator<=>(const Input&) const = default;
    };
    std::optional<ModifierKind> kindOf(Code code) const;
    bool isPhysicallyDown(ModifierKind kind) const;
    void press(Input input, ModifierSet wanted);
    void release(Input input);
    void pressModifier(Code code);
    void releaseModifier(Code code, ModifierKind kind);
    void adjustTo(ModifierSet wanted);
    void require(ModifierKind kind);
    void forbid(ModifierKind kind);
    void lift(Code code, ModifierKind kind);
    void liftWithoutTapping(Code code);

    const Emit emit_;
    Layout layout_;
    std::map<Input, ModifierSet> held_;   // what is down and is no modifier, and what it asked for
    std::set<Code> modifiers_;            // modifier keys the person holds
    std::set<Code> lifted_;               // those of them that are up for now
    std::map<ModifierKind, Code> added_;  // pressed by us, held by nobody
    std::optional<Input> adjustedFor_;    // whose up puts things back
    std::set<Code> lone_;                 // option and command keys that went down with nothing after them
    std::set<Code> putBackLone_;          // those of them that the person did not press just now
};

}  // namespace velmora
