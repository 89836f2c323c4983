#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/PreferenceStore.h"

namespace velmora {

/// Every preference key of the program. Passwords are never here.
namespace PreferenceKeys {
inline constexpr std::string_view screenMode = "screenMode";                            // integer, ScreenMode
inline constexpr std::string_view keyboardSendKeys = "keyboardSendKeys";                // integer, SendKeys
inline constexpr std::string_view keyboardMatchCharacters = "keyboardMatchCharacters";  // boolean, true
inline constexpr std::string_view playSound = "playSound";                              // boolean, true
inline constexpr std::string_view showStatsOverlay = "showStatsOverlay";                // boolean, false
inline constexpr std::string_view openDebugLogOnConnect = "openDebugLogOnConnect";      // boolean, false
inline constexpr std::string_view cellularMbps = "cellularMbps";                        // integer, 6
inline constexpr std::string_view captureFolder = "captureFolder";                      // string
inline constexpr std::string_view dictationMicrophone = "dictationMicrophone";  // string; empty as none
inline constexpr std::string_view appTheme = "appTheme";                        // string, Theme
inline constexpr std::string_view settingsTab = "settingsTab";                  // string, "general"
inline constexpr std::string_view debugLogFrame = "VelmoraDebugLog";            // string, "x y width height"
inline constexpr std::string_view updatesCheckAutomatically = "updatesCheckAutomatically";  // boolean, true
inline constexpr std::string_view updatesLastChecked = "updatesLastChecked";                // date
inline constexpr std::string_view shareUsageData = "shareUsageData";                        // boolean, true
inline constexpr std::string_view migratedViewerPreferences = "migratedViewerPreferences";  // boolean, false
inline constexpr std::string_view deviceID = "deviceID";                       // string, made on first use
inline constexpr std::string_view savedRemoteDevices = "remoteDevices.saved";  // bytes, JSON
inline constexpr std::string_view macKind = "macKind";                   // string, MacKind of this machine
inline constexpr std::string_view hostId = "host.id";                    // string, nine digits
inline constexpr std::string_view hostCodec = "host.codec";              // integer, VideoCodec, hevc
inline constexpr std::string_view hostBitrateMbps = "host.bitrateMbps";  // integer, 20
inline constexpr std::string_view hostDynamicDisplay = "host.dynamicDisplay";            // boolean, true
inline constexpr std::string_view hostStartOnLaunch = "host.startOnLaunch";              // boolean, true
inline constexpr std::string_view hostAllowPasswordAccess = "host.allowPasswordAccess";  // boolean, true
inline constexpr std::string_view hostKeepAwake = "host.keepAwake";                      // boolean, false

/// Kind of the machine that advertises itself under `serviceName`: string.
inline std::string macKindOf(std::string_view serviceName) {
    return "macKind:" + std::string(serviceName);
}
/// Certificate fingerprint of a host, as the rendezvous service told it: string.
inline std::string hostFingerprint(std::string_view hostId) {
    return "hostFingerprint:" + std::string(hostId);
}
/// Certificate fingerprint remembered when first connected to `endpoint` (its text): string.
inline std::string knownHost(std::string_view endpoint) {
    return "knownHost:" + std::string(endpoint);
}
}  // namespace PreferenceKeys

/// What a viewer window shows. The numbers are what is stored.
enum class ScreenMode : std::int64_t { matchWindow = 0, serverDisplay = 1 };

/// Light or dark windows. Stored as its word; an unknown word counts as `automatic`.
enum class Theme { automatic, light, dark };

// The readers below give the default for a key that is unset or holds a value of another type.

struct ViewerPreferences {
    static ScreenMode screenMode(const PreferenceStore& preferences);
    static void setScreenMode(PreferenceStore& preferences, ScreenMode mode);
    static bool playSound(const PreferenceStore& preferences);
    static bool openDebugLogOnConnect(const PreferenceStore& preferences);
    /// Limit of the video on cellular and relay paths, Mbit/s.
    static std::int64_t cellularMbps(const PreferenceStore& preferences);
};

struct KeyboardPreferences {
    /// When a viewer window sends keys to the host. The numbers are what is stored.
    enum class SendKeys : std::int64_t { mouseOverPicture = 0, windowActive = 1 };

    /// Type the same characters rather than press the same physical keys.
    static bool matchCharacters(const PreferenceStore& preferences);
    static SendKeys sendKeys(const PreferenceStore& preferences);
    static void setSendKeys(PreferenceStore& preferences, SendKeys sendKeys);
};

struct StatsPreferences {
    static bool showOverlay(const PreferenceStore& preferences);
};

struct ThemePreferences {
    static std::string_view wordFor(Theme theme);
    static Theme saved(const PreferenceStore& preferences);
    static void save(PreferenceStore& preferences, Theme theme);
};

}  // namespace velmora
