#include "VelmoraKit/Wire/KeyCodes.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <set>

namespace velmora {
namespace {

TEST(KeyCodesTest, keysThatPeopleUseMeetTheirNamesakes) {
    struct Case {
        std::uint16_t mac, evdev;
    };
    for (const Case& c : {Case{0x00, KEY_A},          Case{0x06, KEY_Z},         Case{0x0A, KEY_102ND},
                          Case{0x12, KEY_1},          Case{0x1D, KEY_0},         Case{0x24, KEY_ENTER},
                          Case{0x2A, KEY_BACKSLASH},  Case{0x30, KEY_TAB},       Case{0x31, KEY_SPACE},
                          Case{0x32, KEY_GRAVE},      Case{0x33, KEY_BACKSPACE}, Case{0x35, KEY_ESC},
                          Case{0x36, KEY_RIGHTMETA},  Case{0x37, KEY_LEFTMETA},  Case{0x38, KEY_LEFTSHIFT},
                          Case{0x39, KEY_CAPSLOCK},   Case{0x3A, KEY_LEFTALT},   Case{0x3B, KEY_LEFTCTRL},
                          Case{0x3C, KEY_RIGHTSHIFT}, Case{0x3D, KEY_RIGHTALT},  Case{0x3E, KEY_RIGHTCTRL},
                          Case{0x4C, KEY_KPENTER},    Case{0x52, KEY_KP0},       Case{0x5C, KEY_KP9},
                          Case{0x60, KEY_F5},         Case{0x67, KEY_F11},       Case{0x6F, KEY_F12},
                          Case{0x73, KEY_HOME},       Case{0x74, KEY_PAGEUP},    Case{0x75, KEY_DELETE},
                          Case{0x77, KEY_END},        Case{0x79, KEY_PAGEDOWN},  Case{0x7A, KEY_F1},
                          Case{0x7B, KEY_LEFT},       Case{0x7C, KEY_RIGHT},     Case{0x7D, KEY_DOWN},
                          Case{0x7E, KEY_UP}}) {
        EXPECT_EQ(evdevFromMacKey(c.mac), c.evdev) << std::hex << c.mac;
        EXPECT_EQ(macKeyFromEvdev(c.evdev), c.mac) << c.evdev;
    }
}

TEST(KeyCodesTest, theTableIsOneToOneButForTheSecondEnterAndFitsX11) {
    std::set<std::uint16_t> seen;
    int keys = 0;
    for (std::uint16_t mac = 0; mac < 128; ++mac) {
        const auto evdev = evdevFromMacKey(mac);
        if (!evdev) continue;
        ++keys;
        EXPECT_LE(*evdev + 8, 255);
        EXPECT_TRUE(seen.insert(*evdev).second || *evdev == KEY_KPENTER) << *evdev;
    }
    EXPECT_EQ(keys, 120);
    EXPECT_EQ(evdevFromMacKey(0x34), KEY_KPENTER);
}

TEST(KeyCodesTest, codesOutsideTheTableHaveNoPartner) {
    for (const int code : {0x3F, 0x7F, 0x80, 0xFF, 0x100, 0xFFFF}) {
        EXPECT_EQ(evdevFromMacKey(static_cast<std::uint16_t>(code)), std::nullopt) << code;
    }
    for (const int code : {0, 200, 255, 256, 0xFFFF}) {
        EXPECT_EQ(macKeyFromEvdev(static_cast<std::uint16_t>(code)), std::nullopt) << code;
    }
}

}  // namespace
}  // namespace velmora
