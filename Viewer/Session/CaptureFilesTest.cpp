#include "Viewer/Session/CaptureFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "Shared/Preferences.h"
#include "Testing/FakeJpegEncoder.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/ScratchFolder.h"
#include "Testing/VirtualQueue.h"
#include "Viewer/Session/FrameSnapshot.h"

namespace velmora {
namespace {

SharedPicture pictureOf(PixelSize size) {
    return PictureBuffer::view(std::make_shared<PictureBuffer>(size));
}

struct CaptureFilesTest : testing::Test {
    VirtualTime time;
    VirtualQueue main{time, "main"}, worker{time, "velmora.worker"};
    FakePreferenceStore preferences;
    ScratchFolder scratch;
    bool diskIsFull = false;
    CaptureFiles files{{.preferences = preferences,
                        .main = main,
                        .worker = worker,
                        .writePng = [this](const Picture&, const std::filesystem::path& file) -> Status {
                            if (diskIsFull) return Failure{"no space"};
                            std::ofstream(file) << "png";
                            return Done{};
                        },
                        .systemFolder = [this] { return scratch.path(); }}};
};

TEST_F(CaptureFilesTest, filesGoToTheChosenFolderWhileItIsThere) {
    EXPECT_EQ(files.folder(), scratch.path());
    const auto chosen = scratch.path() / "mine";
    preferences.set(PreferenceKeys::captureFolder, chosen.string());
    EXPECT_EQ(files.folder(), scratch.path());
    std::filesystem::create_directory(chosen);
    EXPECT_EQ(files.folder(), chosen);
}

TEST_F(CaptureFilesTest, aNameIsFreeAndFitsAFileSystem) {
    const auto now = std::chrono::system_clock::time_point(std::chrono::hours(500'000));
    const auto nameFor = [&](std::string_view host) {
        return CaptureFiles::newFile(scratch.path(), "Screenshot", host, "png", now);
    };
    const auto first = nameFor("a/b:c\n");
    EXPECT_THAT(first.filename().string(),
                testing::MatchesRegex("Screenshot of a-b-c  [0-9]{4}-[0-9]{2}-[0-9]{2} at [0-9.]{8}\\.png"));
    std::ofstream(first) << "taken";
    EXPECT_EQ(nameFor("a/b:c\n").filename().string(), first.stem().string() + " (2).png");
    EXPECT_LT(nameFor(std::string(300, 'x')).filename().string().size(), 255u);
}

TEST_F(CaptureFilesTest, whatBecameOfAScreenshotIsTold) {
    std::vector<CaptureFiles::Saved> results;
    const auto take = [&] {
        files.saveScreenshot(pictureOf({4, 4}), "Desk", [&](const auto& saved) { results.push_back(saved); });
        time.settle();
    };
    take();
    take();
    diskIsFull = true;
    take();
    ASSERT_EQ(results.size(), 3u);
    EXPECT_TRUE(std::filesystem::exists(*results[0]));
    EXPECT_NE(*results[0], *results[1]);
    EXPECT_EQ(results[2].error().description,
              "Couldn't save to “" + scratch.path().filename().string() + "”");
}

TEST_F(CaptureFilesTest, theLastPictureOfAHostIsKeptSmall) {
    FakeJpegEncoder jpeg;
    FrameSnapshot snapshots(scratch.path() / "new" / "LastFrames", jpeg, worker);
    EXPECT_EQ(snapshots.fileFor("Ann's Desk/2").filename(), "Ann-s-Desk-2.jpg");
    const auto contents = [&] {
        time.settle();
        std::ifstream in(snapshots.fileFor("Desk"));
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    snapshots.save(pictureOf({2560, 1440}), "Desk");
    EXPECT_EQ(contents(), "1280x720 from 0,0 2560x1440");
    snapshots.save(pictureOf({640, 480}), "Desk");
    EXPECT_EQ(contents(), "640x480 from 0,0 640x480");
    jpeg.failure = Failure{"broken"};
    snapshots.save(pictureOf({320, 200}), "Desk");
    EXPECT_EQ(contents(), "640x480 from 0,0 640x480");
    const auto file = snapshots.fileFor(std::string(400, 'n'));
    jpeg.failure.reset();
    snapshots.save(pictureOf({64, 64}), std::string(400, 'n'));
    time.settle();
    EXPECT_TRUE(std::filesystem::exists(file));
}

}  // namespace
}  // namespace velmora
