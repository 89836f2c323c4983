#include "Shared/Preferences.h"

namespace velmora {

namespace Keys = PreferenceKeys;

ScreenMode ViewerPreferences::screenMode(const PreferenceStore& preferences) {
    return preferences.integerOr(Keys::screenMode, 0) == 1 ? ScreenMode::serverDisplay
                                                           : ScreenMode::matchWindow;
}

void ViewerPreferences::setScreenMode(PreferenceStore& preferences, ScreenMode mode) {
    preferences.set(Keys::screenMode, static_cast<std::int64_t>(mode));
}

bool ViewerPreferences::playSound(const PreferenceStore& preferences) {
    return preferences.boolOr(Keys::playSound, true);
}

bool ViewerPreferences::openDebugLogOnConnect(const PreferenceStore& preferences) {
    return preferences.boolOr(Keys::openDebugLogOnConnect, false);
}

std::int64_t ViewerPreferences::cellularMbps(const PreferenceStore& preferences) {
    return preferences.integerOr(Keys::cellularMbps, 6);
}

bool KeyboardPreferences::matchCharacters(const PreferenceStore& preferences) {
    return preferences.boolOr(Keys::keyboardMatchCharacters, true);
}

KeyboardPreferences::SendKeys KeyboardPreferences::sendKeys(const PreferenceStore& preferences) {
    return preferences.integerOr(Keys::keyboardSendKeys, 0) == 1 ? SendKeys::windowActive
                                                                 : SendKeys::mouseOverPicture;
}

void KeyboardPreferences::setSendKeys(PreferenceStore& preferences, SendKeys sendKeys) {
    preferences.set(Keys::keyboardSendKeys, static_cast<std::int64_t>(sendKeys));
}

bool StatsPreferences::showOverlay(const PreferenceStore& preferences) {
    return preferences.boolOr(Keys::showStatsOverlay, false);
}

std::string_view ThemePreferences::wordFor(Theme theme) {
    switch (theme) {
        case Theme::automatic:
            return "auto";
        case Theme::light:
            return "light";
        case Theme::dark:
            return "dark";
    }
    return "auto";
}

Theme ThemePreferences::saved(const PreferenceStore& preferences) {
    const auto word = preferences.string(Keys::appTheme);
    for (const Theme theme : {Theme::light, Theme::dark}) {
        if (word == wordFor(theme)) return theme;
    }
    return Theme::automatic;
}

void ThemePreferences::save(PreferenceStore& preferences, Theme theme) {
    preferences.set(Keys::appTheme, std::string(wordFor(theme)));
}

}  // namespace velmora
