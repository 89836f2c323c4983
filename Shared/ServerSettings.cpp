#include "Shared/ServerSettings.h"

#include "Shared/Preferences.h"

namespace velmora {

namespace Keys = PreferenceKeys;

ServerSettings ServerSettings::load(const PreferenceStore& preferences) {
    const ServerSettings defaults;
    return {
        // A number that is no codec, whatever wrote it, counts as the default.
        .codec = preferences.integerOr(Keys::hostCodec, 1) == 0 ? VideoCodec::h264 : VideoCodec::hevc,
        .bitrateMbps = preferences.integerOr(Keys::hostBitrateMbps, defaults.bitrateMbps),
        .dynamicDisplay = preferences.boolOr(Keys::hostDynamicDisplay, defaults.dynamicDisplay),
        .startOnLaunch = preferences.boolOr(Keys::hostStartOnLaunch, defaults.startOnLaunch),
        .allowPasswordAccess =
            preferences.boolOr(Keys::hostAllowPasswordAccess, defaults.allowPasswordAccess),
        .keepAwake = preferences.boolOr(Keys::hostKeepAwake, defaults.keepAwake),
    };
}

void ServerSettings::save(PreferenceStore& preferences) const {
    preferences.set(Keys::hostCodec, static_cast<std::int64_t>(codec));
    preferences.set(Keys::hostBitrateMbps, bitrateMbps);
    preferences.set(Keys::hostDynamicDisplay, dynamicDisplay);
    preferences.set(Keys::hostStartOnLaunch, startOnLaunch);
    preferences.set(Keys::hostAllowPasswordAccess, allowPasswordAccess);
    preferences.set(Keys::hostKeepAwake, keepAwake);
}

}  // namespace velmora
