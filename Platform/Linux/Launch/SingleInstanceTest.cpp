#include "Platform/Linux/Launch/SingleInstance.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QLocalSocket>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>

#include "Testing/DiaryReader.h"
#include "Testing/ScratchFolder.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

class SingleInstanceTest : public testing::Test {
protected:
    /// A later start, as in another process: what it was answered, or "first".
    std::future<std::string> startAgain(std::chrono::milliseconds patience = 20s) {
        return std::async(std::launch::async, [place = place, patience] {
            const SingleInstance later(place, {.patience = patience});
            return later.isFirst() ? "first" : later.answer().value_or("no answer");
        });
    }
    static std::string outcomeOf(std::future<std::string> start) {
        while (start.wait_for(0s) != std::future_status::ready) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        }
        return start.get();
    }
    std::string socket() const { return (place.folder / "application.socket").string(); }

    ScratchFolder folder;
    const SingleInstance::Place place{folder / "run", "application"};
    DiaryReader diary;
    int argc_ = 1;
    char name_[5] = "test";
    char* argv_[2] = {name_, nullptr};
    QCoreApplication qt_{argc_, argv_};
};

TEST_F(SingleInstanceTest, aLaterStartIsAnsweredByTheFirst) {
    int asked = 0;
    SingleInstance first(place);
    ASSERT_TRUE(first.isFirst());
    auto early = startAgain();  // before anybody listens
    first.listen([&]() -> std::optional<std::string> { return "shown " + std::to_string(++asked); });
    EXPECT_EQ(outcomeOf(std::move(early)), "shown 1");
    EXPECT_EQ(outcomeOf(startAgain()), "shown 2");
}

TEST_F(SingleInstanceTest, itTakesThePlaceOfOneThatIsAboutToEnd) {
    auto first = std::make_unique<SingleInstance>(place);
    int asked = 0;
    first->listen([&]() -> std::optional<std::string> {
        ++asked;
        return std::nullopt;
    });
    auto later = startAgain();
    while (asked == 0) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    first.reset();
    EXPECT_EQ(outcomeOf(std::move(later)), "first");
}

TEST_F(SingleInstanceTest, aCrashLeavesNothingInTheWayAndSilenceIsTold) {
    std::filesystem::create_directories(place.folder);
    std::filesystem::permissions(place.folder, std::filesystem::perms::owner_all);
    std::ofstream(socket()) << "left behind";
    SingleInstance first(place);
    ASSERT_TRUE(first.isFirst());
    EXPECT_EQ(outcomeOf(startAgain(150ms)), "no answer");
    first.listen([]() -> std::optional<std::string> { return "here"; });
    EXPECT_EQ(outcomeOf(startAgain()), "here");
}

TEST_F(SingleInstanceTest, nonsenseGetsNoAnswerAndDoesNoHarm) {
    SingleInstance first(place);
    int asked = 0;
    first.listen([&]() -> std::optional<std::string> { return std::to_string(++asked); });
    for (const QByteArray& nonsense : {QByteArray("hide\n"), QByteArray(100'000, 'x'), QByteArray("show")}) {
        QLocalSocket caller;
        caller.connectToServer(QString::fromStdString(socket()));
        ASSERT_TRUE(caller.waitForConnected());
        caller.write(nonsense);
        const auto end = std::chrono::steady_clock::now() + 50ms;
        while (std::chrono::steady_clock::now() < end) QCoreApplication::processEvents();
        EXPECT_EQ(caller.bytesAvailable(), 0);
    }
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(outcomeOf(startAgain()), "1");
}

TEST_F(SingleInstanceTest, aFolderThatOthersMayWriteToIsNotUsed) {
    std::filesystem::create_directories(place.folder);
    std::filesystem::permissions(place.folder, std::filesystem::perms::all);
    SingleInstance first(place), second(place);
    EXPECT_TRUE(first.isFirst() && second.isFirst());
    EXPECT_EQ(diary.hostLines().size(), 2u);
}

}  // namespace
}  // namespace velmora
