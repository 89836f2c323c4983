#include <algorithm>

#include "Tests/EndToEnd/EndToEndTest.h"

namespace velmora {
namespace {

using Kind = XServerFixture::Kind;

class SharedPictureOnServer : public EndToEndTest, public testing::WithParamInterface<Kind> {
protected:
    /// How much the viewer's picture is like the host's screen now.
    double likenessOf(RunningProgram& viewer) {
        const auto file = folder_ / "seen.png";
        if (!does(viewer, "png " + file.string())) return 0;
        const auto seen = readPng(file);
        const auto screenshot = screenshotOf(screen(), display());
        return seen && screenshot ? likeness(*seen, *screenshot) : 0;
    }
    void expectSharp(RunningProgram& viewer) {
        double best = 0;
        EXPECT_TRUE(eventually([&] { return (best = std::max(best, likenessOf(viewer))) >= 0.98; }))
            << "likeness " << best;
        RecordProperty("likeness", std::to_string(best));
    }
};

TEST_P(SharedPictureOnServer, equalsTheScreenOnceItHasSharpened) {
    ASSERT_NO_FATAL_FAILURE(startServer(GetParam()));
    if (GetParam() == Kind::xorgDummy) {
        ASSERT_NO_FATAL_FAILURE(moveDisplayRight());
    }
    show(screen(), desktopImage({display().width, display().height}), display().x, display().y);
    const auto host = startHost();
    const auto viewer = watch();
    ASSERT_TRUE(viewer) << host->said();
    expectSharp(*viewer);

    screen().fill({display().x + 200, display().y + 120, 500, 300}, 0x8040C0);
    expectSharp(*viewer);
}

INSTANTIATE_TEST_SUITE_P(, SharedPictureOnServer, testing::Values(Kind::xvfb, Kind::xorgDummy),
                         [](const auto& info) {
                             return info.param == Kind::xvfb ? "withoutOutputs" : "withTwoDisplays";
                         });

}  // namespace
}  // namespace velmora
