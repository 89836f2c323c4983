#pragma once

#include <algorithm>
#include <cstdlib>

namespace velmora {

/// Turns scrolled pixels along one axis into clicks of a wheel, for a server that knows no finer steps. What
/// does not fill a click waits for more in the same direction.
class ScrollClicks {
public:
    // What toolkits scroll for one click lies about here; with it a page moves as far as the fingers did.
    static constexpr int pixelsPerClick = 53;
    // One event of a peer never makes more, and the rest is dropped: twenty screens full, which an agent may
    // well ask for at once, to come to the end of a page.
    static constexpr int mostClicks = 400;

    /// Clicks to make now, with the sign of `pixels`.
    int add(int pixels) {
        if ((pixels > 0 && remainder_ < 0) || (pixels < 0 && remainder_ > 0)) remainder_ = 0;
        constexpr int limit = (mostClicks + 1) * pixelsPerClick;
        remainder_ += std::clamp(pixels, -limit, limit);
        const int clicks = remainder_ / pixelsPerClick;
        remainder_ -= clicks * pixelsPerClick;
        if (std::abs(clicks) <= mostClicks) return clicks;
        remainder_ = 0;
        return clicks > 0 ? mostClicks : -mostClicks;
    }

private:
    int remainder_ = 0;
};

}  // namespace velmora
