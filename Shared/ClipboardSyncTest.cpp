#include "Shared/ClipboardSync.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "Testing/FakeFolderArchiver.h"
#include "Testing/FakePasteboard.h"
#include "Testing/ScratchFolder.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = ClipboardContent::Kind;
using Type = Pasteboard::Type;

class ClipboardSyncTest : public testing::Test {
protected:
    void start() {
        sync->start([this](const ClipboardContent& content) { sent.push_back(content); });
    }
    /// Another program copies, and time passes until that has been dealt with.
    void copyText(const std::string& text) {
        pasteboard.copyText(text);
        time.advanceBy(1s);
    }
    void receive(Kind kind, Bytes data) {
        sync->receive({kind, std::move(data)});
        time.advanceBy(1s);
    }
    void receiveFiles(const ClipboardFiles& files) { receive(Kind::files, files.encode()); }
    std::vector<std::string> sentTexts() const {
        std::vector<std::string> texts;
        for (const auto& content : sent) texts.push_back(textOf(content.data));
        return texts;
    }
    std::vector<std::string> takeLines() { return std::exchange(lines, {}); }
    fs::path write(const std::string& name, std::string_view content) {
        std::ofstream(scratch / name, std::ios::binary) << content;
        return scratch / name;
    }

    ScratchFolder scratch;
    VirtualTime time;
    VirtualQueue main{time, "main"}, worker{time, "worker"};
    FakePasteboard pasteboard{main};
    FakeFolderArchiver archiver;
    std::vector<std::string> lines;
    std::vector<ClipboardContent> sent;
    std::unique_ptr<ClipboardSync> sync = std::make_unique<ClipboardSync>(
        "viewer", [this](const std::string& line) { lines.push_back(line); },
        ClipboardSync::Services{.pasteboard = pasteboard,
                                .archiver = archiver,
                                .main = main,
                                .worker = worker,
                                .inbox = scratch / "inbox"});
};

TEST_F(ClipboardSyncTest, whatIsCopiedDuringTheSessionIsSentOnce) {
    copyText("before");
    start();
    time.advanceBy(5s);
    EXPECT_THAT(sent, IsEmpty());
    copyText("one");
    copyText("one");
    copyText("två");
    EXPECT_THAT(sentTexts(), ElementsAre("one", "två"));
    EXPECT_THAT(
        lines,
        ElementsAre("Clipboard types: text/plain;charset=utf-8", "Clipboard to viewer: text, 3 bytes",
                    "Clipboard types: text/plain;charset=utf-8", "Clipboard types: text/plain;charset=utf-8",
                    "Clipboard to viewer: text, 4 bytes"));
    sync->stop();
    copyText("after");
    EXPECT_EQ(sent.size(), 2u);
}

TEST_F(ClipboardSyncTest, aCopyIsSentAtOnceAndManyInARowAreNot) {
    start();
    pasteboard.copyText("0");
    time.settle();
    EXPECT_THAT(sentTexts(), ElementsAre("0"));
    for (int i = 1; i < 20; ++i) {
        pasteboard.copyText(std::to_string(i));
        time.advanceBy(100ms);
    }
    time.advanceBy(1s);
    EXPECT_LE(sent.size(), 6u);
    EXPECT_EQ(sentTexts().back(), "19");
}

TEST_F(ClipboardSyncTest, privateCopiesAreLeftAlone) {
    start();
    for (const char* mark : {Type::concealed, Type::transient}) {
        pasteboard.copy({{Type::text, bytesOf("hunter2")}, {mark, {}}});
        time.advanceBy(5s);
    }
    EXPECT_THAT(sent, IsEmpty());
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ClipboardSyncTest, aPictureGoesBeforeItsText) {
    start();
    pasteboard.copy({{Type::text, bytesOf("alt")}, {Type::png, Bytes(2047, 1)}});
    time.advanceBy(1s);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], (ClipboardContent{Kind::png, Bytes(2047, 1)}));
    EXPECT_THAT(lines, ElementsAre("Clipboard to viewer: image, 1 KB"));
}

TEST_F(ClipboardSyncTest, whatIsTooLongIsRefusedOnce) {
    start();
    const std::string most(ClipboardContent::maxBytes, 'a');
    copyText(most);
    EXPECT_EQ(sent.size(), 1u);
    takeLines();
    const std::string refusal = "Clipboard not sent to viewer: 8 MB is over the 8 MB limit";
    copyText(most + "b");
    EXPECT_EQ(takeLines().back(), refusal);
    copyText(most + "b");
    EXPECT_THAT(takeLines(), ElementsAre("Clipboard types: text/plain;charset=utf-8"));
    pasteboard.copy({{Type::png, Bytes((64 << 20) + 1)}});
    time.advanceBy(1s);
    EXPECT_THAT(takeLines(), ElementsAre("Clipboard not sent to viewer: 64 MB is over the 8 MB limit"));
    EXPECT_EQ(sent.size(), 1u);
}

TEST_F(ClipboardSyncTest, filesAreSentPackedAndReasonsAreLogged) {
    start();
    const auto one = write("one", std::string(1500, '1'));
    pasteboard.copyFiles({one, write("two", "2"), write("3", ""), write("4", "")});
    time.advanceBy(1s);
    EXPECT_THAT(takeLines(), ElementsAre("Clipboard to viewer: 4 file(s), 1 KB: one, two, 3"));
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(ClipboardFiles::decode(sent[0].data)->items.size(), 4u);
    pasteboard.copyFiles({scratch / "missing"});
    time.advanceBy(1s);
    EXPECT_THAT(takeLines(), ElementsAre("Clipboard not sent to viewer: can't read missing"));
    EXPECT_EQ(sent.size(), 1u);
}

TEST_F(ClipboardSyncTest, addressesOfPagesAreText) {
    start();
    pasteboard.copy({{Type::files, {}}, {Type::text, bytesOf("a link")}});
    time.advanceBy(1s);
    EXPECT_THAT(sentTexts(), ElementsAre("a link"));
}

TEST_F(ClipboardSyncTest, aNewerCopyWinsOverFilesThatAreBeingPacked) {
    start();
    pasteboard.copyFiles({write("a", "file")});
    worker.post([this] { pasteboard.copyText("newer"); });  // while it packs
    time.advanceBy(2s);
    EXPECT_THAT(sentTexts(), ElementsAre("newer"));
}

TEST_F(ClipboardSyncTest, whatComesIsPutOnThePasteboardAndNotSentBack) {
    start();
    receive(Kind::text, {'a', 0xFF});
    EXPECT_EQ(pasteboard.text(), "a\xEF\xBF\xBD");
    EXPECT_THAT(lines, ElementsAre("Clipboard from viewer: text, 2 bytes"));
    receive(Kind::text, bytesOf("same"));
    copyText("same");
    receive(Kind::png, {1, 2});
    EXPECT_THAT(pasteboard.items(), ElementsAre(PasteboardItem{Type::png, {1, 2}}));
    EXPECT_THAT(sent, IsEmpty());
    copyText("new");
    EXPECT_THAT(sentTexts(), ElementsAre("new"));
    sync->stop();
    receive(Kind::text, bytesOf("late"));
    EXPECT_EQ(pasteboard.text(), "late");
}

TEST_F(ClipboardSyncTest, filesThatComeAreSavedAndOffered) {
    start();
    receiveFiles({{{.name = "a", .data = {'1'}}, {.name = "b"}}});
    ASSERT_EQ(pasteboard.files().size(), 2u);
    EXPECT_EQ(pasteboard.files()[0].filename(), "a");
    EXPECT_TRUE(fs::exists(pasteboard.files()[0]));
    EXPECT_THAT(takeLines(), ElementsAre("Clipboard from viewer: 2 file(s), 0 KB: a, b"));
    EXPECT_THAT(sent, IsEmpty());
}

TEST_F(ClipboardSyncTest, filesThatCannotBeSavedLeaveThePasteboardEmpty) {
    copyText("old");
    for (const Bytes& data : {Bytes{0, 0}, ClipboardFiles{{{.name = ".."}}}.encode(), Bytes{0, 0, 0, 0}}) {
        receive(Kind::files, data);
        EXPECT_THAT(pasteboard.items(), IsEmpty());
        EXPECT_THAT(takeLines(), ElementsAre("⚠︎ Clipboard from viewer: couldn't save the files"));
    }
}

TEST_F(ClipboardSyncTest, theNewestWinsOverFilesThatAreBeingSaved) {
    const auto files = [](const char* name) {
        return ClipboardContent{Kind::files, ClipboardFiles{{{.name = name}}}.encode()};
    };
    sync->receive(files("first"));
    sync->receive(files("second"));
    time.settle();
    ASSERT_EQ(pasteboard.files().size(), 1u);
    EXPECT_EQ(pasteboard.files()[0].filename(), "second");
    sync->receive(files("third"));
    pasteboard.copyText("copied here");
    time.settle();
    EXPECT_EQ(pasteboard.text(), "copied here");
}

TEST_F(ClipboardSyncTest, aSilentOwnerHoldsNothingUp) {
    start();
    pasteboard.isSilent = true;
    pasteboard.copyText("never told");
    time.advanceBy(100ms);
    receive(Kind::text, bytesOf("from there"));
    pasteboard.isSilent = false;
    copyText("next");
    EXPECT_THAT(sentTexts(), ElementsAre("next"));
}

TEST_F(ClipboardSyncTest, aConnectionMayOutliveIt) {
    const auto receiver = sync->receiver();
    receiver({});
    receiver({3, 1});
    receiver({0, 'h', 'i'});
    time.settle();
    EXPECT_EQ(pasteboard.text(), "hi");
    EXPECT_EQ(pasteboard.changeCount(), 8) << "what is malformed takes nothing away";
    receiver({0, 'x'});
    sync.reset();
    receiver({0, 'y'});
    time.settle();
    EXPECT_EQ(pasteboard.text(), "hi");
}

}  // namespace
}  // namespace velmora
