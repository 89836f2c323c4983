#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Platform/EventPoster.h"
#include "Platform/Linux/Display/XConnection.h"
#include "Platform/Linux/Input/FocusedWindow.h"
#include "Platform/Linux/Input/HeldKeys.h"
#include "Platform/Linux/Input/ScrollClicks.h"
#include "Platform/Linux/Input/SpareKeys.h"
#include "Platform/Linux/Input/XKeymap.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Posts events through the XTEST extension, over a connection of its own.
///
/// The server knows no event flags: HeldKeys presses and lifts modifier keys instead. Command is the Super
/// key; for an agent it is Control, so that shortcuts do what they do on a Mac. The server repeats held keys
/// by itself. Caps Lock follows the flags and is put back at the end. Nothing waits for the server but what
/// types characters beyond the layout; when the server goes away, events are dropped.
class X11EventPoster final : public EventPoster {
public:
    /// `display` such as ":0"; empty means what DISPLAY says.
    static Result<std::unique_ptr<EventPoster>> open(const std::string& display,
                                                     const EventPosterFactory::Options& options);
    ~X11EventPoster() override;

    void post(const PostedEvent& event) override;

private:
    X11EventPoster(std::unique_ptr<XConnection> connection, const EventPosterFactory::Options& options);

    void movePointer(const PostedEvent& event, std::chrono::milliseconds pause = {});
    void scroll(const PostedEvent& event);
    void pressKey(const PostedEvent& event);
    void releaseKey(const PostedEvent& event);
    void type(const std::u16string& text);
    void typeCharacter(char32_t character);

    std::optional<std::uint8_t> xCodeFor(std::uint16_t keyCode) const;
    ModifierSet modifiersFor(const PostedEvent& event) const;
    ModifierSet shortcutOfAgent(std::uint8_t code, std::uint16_t keyCode, ModifierSet wanted);
    char32_t plainCharacterOf(std::uint8_t code);
    std::optional<char32_t> deadCharacterAt(const PostedEvent& event, std::uint8_t code);

    void takeEvents();
    void followKeymap();
    SpareKeys& spareKeys();
    void lock(XKeymap::Lock lock, bool on);
    void emit(std::uint8_t type, std::uint8_t detail, int x = 0, int y = 0,
              std::chrono::milliseconds wait = {});

    const std::unique_ptr<XConnection> connection_;
    const EventPosterFactory::Options options_;
    FocusedWindow focus_;
    std::unique_ptr<SpareKeys> spareKeys_;  // none until one is needed
    XKeymap keymap_;
    int keymapSeen_ = 0;  // its generation when what follows was taken from it
    std::map<char32_t, XKeymap::Stroke> characters_;
    std::map<XKeymap::Lock, bool> locksBefore_;  // of those that we changed
    HeldKeys held_;
    ScrollClicks horizontal_, vertical_;
    bool isDragging_ = false;  // an agent, since the button went down
    bool saidBroken_ = false;
};

/// Posters for the X server that `display` names; an empty one means what DISPLAY says when one is made.
std::unique_ptr<EventPosterFactory> makeX11EventPosterFactory(std::string display = {});

/// Posters for the session this process runs in. Also clears what a crashed program of ours left on its
/// keyboard.
std::unique_ptr<EventPosterFactory> makeEventPosterFactory();

}  // namespace velmora
