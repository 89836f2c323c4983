#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "Platform/Picture.h"

namespace velmora {

/// A made-up desktop, drawn straight into I420 and the same at every run: what codecs, transport and figures
/// are tried on where there is no screen. Sides even and at least 64.
class DesktopScene {
public:
    enum class Kind {
        still,   // windows with text; nothing changes
        typing,  // one letter and a caret per step
        scroll,  // a page of text moves up by 37 rows per step
        motion,  // a noisy landscape pans, with three discs before it; every pixel changes
    };
    DesktopScene(PixelSize size, Kind kind);

    /// Moves on by one picture and says what changed.
    std::vector<PixelRect> step();
    /// The picture as it stands, in memory of its own.
    SharedPicture snapshot() const;
    /// The picture without a copy: the next step draws into it.
    SharedPicture view() const { return PictureBuffer::view(picture_); }

private:
    struct Ink {
        std::uint8_t y, u, v;
    };
    void fill(const PixelRect& rect, Ink ink);
    void drawLetter(int x, int y, unsigned letter, Ink ink, Ink paper);
    void drawLine(int x, int y, int letters, Ink ink, Ink paper);
    void drawDesktop();
    std::vector<PixelRect> type();
    std::vector<PixelRect> scrollOn();
    std::vector<PixelRect> moveOn();
    void makePage();
    void makeLandscape();
    PixelRect terminal() const;

    const PixelSize size_;
    const Kind kind_;
    std::shared_ptr<PictureBuffer> picture_;
    std::unique_ptr<PictureBuffer> source_;  // the page, or the landscape
    std::mt19937 random_{42};
    int steps_ = 0;
    int column_ = 0, row_ = 0;
};

}  // namespace velmora
