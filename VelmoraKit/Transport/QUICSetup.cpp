#include "VelmoraKit/Transport/QUICSetup.h"

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

bool QUICSetup::accepts(const Verification& verification, const std::string& fingerprint) {
    if (const auto* pinned = std::get_if<Pinned>(&verification)) {
        if (pinned->fingerprint == fingerprint) return true;
        debugLog("⚠︎ QUIC: the other Mac's certificate doesn't match the expected one; refusing");
        return false;
    }
    return std::get<TrustOnFirstUse>(verification).accept(fingerprint);
}

}  // namespace velmora
