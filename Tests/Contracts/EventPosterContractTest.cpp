#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Platform/Linux/Input/X11EventPoster.h"
#include "Testing/FakeEventPoster.h"
#include "Testing/XInputWindow.h"
#include "Testing/XServerFixture.h"
#include "VelmoraKit/Wire/KeyCodes.h"

namespace velmora {
namespace {

using Kind = PostedEvent::Kind;
using namespace EventFlags;

/// What an application gets to see of the events, whoever posts them. Modifier keys show only in what they
/// do.
struct Seen {
    enum class What { keyDown, keyUp, buttonDown, buttonUp };
    What what = What::keyDown;
    int code = 0;             // macOS key code, or button as events number them
    std::uint64_t flags = 0;  // of downs
    int x = 0, y = 0;         // of buttons
    bool operator==(const Seen&) const = default;
};

void PrintTo(const Seen& seen, std::ostream* out) {
    *out << "{" << static_cast<int>(seen.what) << " code " << seen.code << " flags " << std::hex << seen.flags
         << std::dec << " at " << seen.x << "," << seen.y << "}";
}

/// One way to post events, and an application that gets them.
class PosterRig {
public:
    virtual ~PosterRig() = default;
    virtual std::unique_ptr<EventPoster> make() = 0;
    /// What came since the last call, once there are `count` (or all that there ever will be).
    virtual std::vector<Seen> seen(std::size_t count) = 0;
    /// The text typed since the last call, once it is `length` characters long.
    virtual std::u32string typed(std::size_t length) = 0;
    /// Whether the pointer comes to stand there.
    virtual bool pointerReaches(int x, int y) = 0;
    virtual bool isAnythingDown() = 0;
};

class FakeRig final : public PosterRig {
public:
    std::unique_ptr<EventPoster> make() override { return factory_.make({}); }
    std::vector<Seen> seen(std::size_t) override {
        using enum Seen::What;
        std::vector<Seen> all;
        for (const PostedEvent& event : factory_.log->events) {
            if (event.kind == Kind::keyDown) all.push_back({keyDown, event.keyCode, event.flags});
            if (event.kind == Kind::keyUp) all.push_back({keyUp, event.keyCode});
            const auto x = static_cast<int>(event.x), y = static_cast<int>(event.y);
            if (event.kind == Kind::mouseDown) all.push_back({buttonDown, event.button, event.flags, x, y});
            if (event.kind == Kind::mouseUp) all.push_back({buttonUp, event.button, 0, x, y});
        }
        factory_.log->events.clear();
        return all;
    }
    std::u32string typed(std::size_t) override {
        std::u32string text;
        for (const PostedEvent& event : factory_.log->take()) {
            for (std::size_t i = 0; i < event.text.size(); ++i) {
                const char32_t unit = event.text[i];
                const bool pair = unit >= 0xD800 && unit < 0xDC00;
                text += pair ? 0x10000 + ((unit - 0xD800) << 10) + (event.text[++i] - 0xDC00u) : unit;
            }
        }
        return text;
    }
    bool pointerReaches(int x, int y) override {
        const PostedEvent& event = factory_.log->events.back();
        return static_cast<int>(event.x) == x && static_cast<int>(event.y) == y;
    }
    bool isAnythingDown() override {
        int down = 0;
        for (const PostedEvent& event : factory_.log->events) {
            if (event.kind == Kind::keyDown || event.kind == Kind::mouseDown) ++down;
            if (event.kind == Kind::keyUp || event.kind == Kind::mouseUp) --down;
        }
        return down != 0;
    }

private:
    FakeEventPosterFactory factory_;
};

class X11Rig final : public PosterRig {
public:
    X11Rig() {
        EXPECT_TRUE(server_.ok()) << server_.error();
        EXPECT_TRUE(window_.ok());
    }
    std::unique_ptr<EventPoster> make() override {
        return makeX11EventPosterFactory(server_.display())->make({});
    }
    std::vector<Seen> seen(std::size_t count) override {
        window_.waitUntil([&](const auto& events) { return interpreted(events).size() >= count; });
        return interpreted(window_.take());
    }
    std::u32string typed(std::size_t length) override {
        const auto textOf = [this](const std::vector<XInputWindow::Event>& events) {
            std::u32string text;
            for (const auto& event : events) {
                if (event.kind != XInputWindow::Event::Kind::keyDown || isModifier(event.detail)) continue;
                const auto symbols = window_.symbolsOf(event.detail);
                const std::size_t level = event.state & XCB_MOD_MASK_SHIFT ? 1 : 0;
                const auto symbol = level < symbols.size() ? symbols[level] : 0;
                text += symbol >= 0x1000000 ? symbol - 0x1000000 : symbol;
            }
            return text;
        };
        window_.waitUntil([&](const auto& events) { return textOf(events).size() >= length; });
        return textOf(window_.take());
    }
    bool pointerReaches(int x, int y) override {
        return window_.waitUntil([&](const auto& events) {
            return !events.empty() && events.back().x == x && events.back().y == y;
        });
    }
    bool isAnythingDown() override { return window_.isAnythingDown(); }

private:
    static bool isModifier(std::uint8_t code) {
        const auto key = macKeyFromEvdev(static_cast<std::uint16_t>(code - 8));
        return key && *key >= 0x36 && *key <= 0x3E;
    }
    static std::uint64_t flagsOf(std::uint16_t state) {
        std::uint64_t flags = 0;
        if (state & XCB_MOD_MASK_SHIFT) flags |= shift;
        if (state & XCB_MOD_MASK_CONTROL) flags |= control;
        if (state & XCB_MOD_MASK_1) flags |= option;
        if (state & XCB_MOD_MASK_4) flags |= command;
        return flags;
    }
    static std::vector<Seen> interpreted(const std::vector<XInputWindow::Event>& events) {
        using enum Seen::What;
        using X = XInputWindow::Event::Kind;
        std::vector<Seen> all;
        for (const auto& event : events) {
            const bool isKey = event.kind == X::keyDown || event.kind == X::keyUp;
            if (event.kind == X::motion || (isKey && isModifier(event.detail))) continue;
            const int button = event.detail == 1 ? 0 : event.detail == 3 ? 1 : 2;
            const int key = macKeyFromEvdev(static_cast<std::uint16_t>(event.detail - 8)).value_or(0xFFFF);
            switch (event.kind) {
                case X::keyDown:
                    all.push_back({keyDown, key, flagsOf(event.state)});
                    break;
                case X::keyUp:
                    all.push_back({keyUp, key});
                    break;
                case X::buttonDown:
                    all.push_back({buttonDown, button, flagsOf(event.state), event.x, event.y});
                    break;
                case X::buttonUp:
                    all.push_back({buttonUp, button, 0, event.x, event.y});
                    break;
                case X::motion:
                    break;
            }
        }
        return all;
    }

    XServerFixture server_{{.size = {800, 600}}};
    XInputWindow window_{server_.display()};
};

template <class Rig>
class EventPosterContract : public testing::Test {
protected:
    Rig rig;
    std::unique_ptr<EventPoster> poster = rig.make();
};

using Rigs = testing::Types<FakeRig, X11Rig>;
struct RigNames {
    template <class Rig>
    static std::string GetName(int) {
        return std::is_same_v<Rig, FakeRig> ? "Fake" : "X11";
    }
};
TYPED_TEST_SUITE(EventPosterContract, Rigs, RigNames);

using enum Seen::What;

TYPED_TEST(EventPosterContract, thePointerGoesWhereItIsSent) {
    this->poster->post({.kind = Kind::mouseMove, .x = 123, .y = 45});
    EXPECT_TRUE(this->rig.pointerReaches(123, 45));
    this->poster->post({.kind = Kind::mouseDrag, .x = 321.9, .y = 54, .button = 0});
    EXPECT_TRUE(this->rig.pointerReaches(321, 54));
}

TYPED_TEST(EventPosterContract, buttonsGoDownAndUpAtTheirPoints) {
    for (const int button : {0, 1, 2}) {
        this->poster->post({.kind = Kind::mouseDown, .x = 10, .y = 20, .button = button, .flags = shift});
        this->poster->post({.kind = Kind::mouseUp, .x = 30, .y = 40, .button = button});
        EXPECT_THAT(this->rig.seen(2), testing::ElementsAre(Seen{buttonDown, button, shift, 10, 20},
                                                            Seen{buttonUp, button, 0, 30, 40}));
    }
}

TYPED_TEST(EventPosterContract, eachKeyDownHasTheModifiersOfItsFlags) {
    for (const std::uint64_t flags :
         {std::uint64_t{0}, shift, control, option, command, shift | command, control | option | shift}) {
        this->poster->post({.kind = Kind::keyDown, .keyCode = 0x28, .flags = flags});
        this->poster->post({.kind = Kind::keyUp, .keyCode = 0x28});
        EXPECT_THAT(this->rig.seen(2), testing::ElementsAre(Seen{keyDown, 0x28, flags}, Seen{keyUp, 0x28}));
    }
}

TYPED_TEST(EventPosterContract, textArrivesWhateverTheLayout) {
    this->poster->post({.kind = Kind::text, .text = u"aZ!\u00E9\u20AC\u4F60\u597D\U0001F600"});
    EXPECT_EQ(this->rig.typed(8), U"aZ!\u00E9\u20AC\u4F60\u597D\U0001F600");
}

TYPED_TEST(EventPosterContract, whateverIsStillDownGoesUpInTheEnd) {
    this->poster->post({.kind = Kind::keyDown, .keyCode = 0x38, .flags = shift});
    this->poster->post({.kind = Kind::keyDown, .keyCode = 0, .flags = shift | command});
    this->poster->post({.kind = Kind::mouseDown, .x = 5, .y = 5, .button = 0, .flags = option});
    this->poster->post({.kind = Kind::mouseDown, .x = 5, .y = 5, .button = 2});
    this->poster.reset();
    EXPECT_FALSE(this->rig.isAnythingDown());
}

TYPED_TEST(EventPosterContract, senselessValuesHarmNothing) {
    constexpr double huge = std::numeric_limits<double>::max();
    constexpr int most = std::numeric_limits<int>::max();
    for (const Kind kind : {Kind::mouseMove, Kind::mouseDrag, Kind::mouseDown, Kind::mouseUp}) {
        this->poster->post({.kind = kind, .x = huge, .y = -huge, .button = 99, .clickCount = most});
        this->poster->post({.kind = kind, .x = std::nan(""), .y = std::nan(""), .button = -99});
    }
    this->poster->post({.kind = Kind::keyDown, .keyCode = 0xFFFF, .flags = ~std::uint64_t{0} & ~capsLock});
    this->poster->post({.kind = Kind::keyUp, .keyCode = 0xFFFF});
    this->poster->post({.kind = Kind::text, .text = std::u16string{0xD800, 0xDC00 - 1, 0xDFFF, 0, 7}});
    this->poster->post({.kind = Kind::scroll, .scrollX = most, .scrollY = -most});
    this->poster->post({.kind = Kind::mouseMove, .x = 7, .y = 8});
    EXPECT_TRUE(this->rig.pointerReaches(7, 8));
}

}  // namespace
}  // namespace velmora
