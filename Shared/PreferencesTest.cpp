#include "Shared/Preferences.h"

#include <gtest/gtest.h>

#include "Shared/ServerSettings.h"
#include "Testing/FakePreferenceStore.h"

namespace velmora {
namespace {

TEST(PreferencesTest, anUnsetKeyAndABrokenOneBehaveAlike) {
    FakePreferenceStore preferences;
    const auto expectDefaults = [&] {
        EXPECT_EQ(ViewerPreferences::screenMode(preferences), ScreenMode::matchWindow);
        EXPECT_TRUE(ViewerPreferences::playSound(preferences));
        EXPECT_FALSE(ViewerPreferences::openDebugLogOnConnect(preferences));
        EXPECT_EQ(ViewerPreferences::cellularMbps(preferences), 6);
        EXPECT_TRUE(KeyboardPreferences::matchCharacters(preferences));
        EXPECT_EQ(KeyboardPreferences::sendKeys(preferences),
                  KeyboardPreferences::SendKeys::mouseOverPicture);
        EXPECT_FALSE(StatsPreferences::showOverlay(preferences));
        EXPECT_EQ(ThemePreferences::saved(preferences), Theme::automatic);
        EXPECT_EQ(ServerSettings::load(preferences), ServerSettings());
    };
    expectDefaults();
    for (const auto* key :
         {"screenMode", "playSound", "openDebugLogOnConnect", "cellularMbps", "keyboardMatchCharacters",
          "keyboardSendKeys", "showStatsOverlay", "host.codec", "host.bitrateMbps", "host.dynamicDisplay",
          "host.startOnLaunch", "host.allowPasswordAccess", "host.keepAwake"}) {
        preferences.set(key, std::string("1"));
    }
    preferences.set("appTheme", std::string("sepia"));
    expectDefaults();
}

TEST(PreferencesTest, enumerationsTakeOnlyTheNumbersAndWordsTheyKnow) {
    FakePreferenceStore preferences;
    for (const std::int64_t number : {2, -1, 256, 257}) {
        preferences.set(PreferenceKeys::screenMode, number);
        preferences.set(PreferenceKeys::keyboardSendKeys, number);
        preferences.set(PreferenceKeys::hostCodec, number);
        EXPECT_EQ(ViewerPreferences::screenMode(preferences), ScreenMode::matchWindow);
        EXPECT_EQ(KeyboardPreferences::sendKeys(preferences),
                  KeyboardPreferences::SendKeys::mouseOverPicture);
        EXPECT_EQ(ServerSettings::load(preferences).codec, VideoCodec::hevc);
    }
    ViewerPreferences::setScreenMode(preferences, ScreenMode::serverDisplay);
    KeyboardPreferences::setSendKeys(preferences, KeyboardPreferences::SendKeys::windowActive);
    ThemePreferences::save(preferences, Theme::dark);
    EXPECT_EQ(preferences.get("screenMode"), PreferenceValue(std::int64_t{1}));
    EXPECT_EQ(preferences.get("keyboardSendKeys"), PreferenceValue(std::int64_t{1}));
    EXPECT_EQ(preferences.string("appTheme"), "dark");
    EXPECT_EQ(ThemePreferences::saved(preferences), Theme::dark);
}

TEST(ServerSettingsTest, areStoredUnderTheirKeysAndReadBack) {
    FakePreferenceStore preferences;
    const ServerSettings settings{.codec = VideoCodec::h264,
                                  .bitrateMbps = 35,
                                  .dynamicDisplay = false,
                                  .startOnLaunch = false,
                                  .allowPasswordAccess = false,
                                  .keepAwake = true};
    settings.save(preferences);
    EXPECT_EQ(ServerSettings::load(preferences), settings);
    EXPECT_EQ(preferences.get("host.codec"), PreferenceValue(std::int64_t{0}));
    EXPECT_EQ(preferences.get("host.bitrateMbps"), PreferenceValue(std::int64_t{35}));
    EXPECT_EQ(preferences.get("host.keepAwake"), PreferenceValue(true));
    EXPECT_EQ(preferences.get("host.allowPasswordAccess"), PreferenceValue(false));
    EXPECT_EQ(preferences.get("host.startOnLaunch"), PreferenceValue(false));
    EXPECT_EQ(preferences.get("host.dynamicDisplay"), PreferenceValue(false));
}

}  // namespace
}  // namespace velmora
