#include <gmock/gmock.h>

#include <csignal>

#include "Tests/EndToEnd/EndToEndTest.h"
#include "Tests/EndToEnd/Person.h"

namespace velmora {
namespace {

/// The application on somebody's desktop, from start to end.
class ApplicationEndToEnd : public EndToEndTest {
protected:
    void SetUp() override {
        service_ = startRendezvous();
        sitDownAt("icewm");  // which has a tray
    }
    void sitDownAt(const std::string& windowManager) {
        person_.reset();
        person_ = std::make_unique<Person>(
            Person::Options{.home = homeOf("person"), .windowManager = {windowManager}});
        ASSERT_EQ(person_->error(), "");
    }
    std::unique_ptr<RunningProgram> start() { return person_->start({VELMORA_PROGRAM}, rendezvous); }
    void startFirst() {
        first_ = start();
        ASSERT_TRUE(isRegistered(*first_)) << first_->said();
    }
    void expectAnswered() {
        const auto second = start();
        EXPECT_EQ(second->end(), 0) << second->said();
        EXPECT_THAT(second->said(),
                    testing::StartsWith("Velmora is running already; its panel is open on :"));
    }

    std::unique_ptr<RunningProgram> service_, first_;
    std::unique_ptr<Person> person_;
};

TEST_F(ApplicationEndToEnd, aSecondStartShowsThePanelOfTheFirst) {
    ASSERT_NO_FATAL_FAILURE(startFirst());
    EXPECT_FALSE(person_->sees(*first_, "push button", "Stop Server", std::chrono::milliseconds(0)));
    expectAnswered();
    EXPECT_TRUE(person_->sees(*first_, "push button", "Stop Server")) << person_->describe(*first_);
    expectAnswered();  // with the panel open
    first_->signal(SIGTERM);
    EXPECT_EQ(first_->end(), 0) << first_->said();
}

TEST_F(ApplicationEndToEnd, aCrashLeavesNothingInTheWayOfTheNextStart) {
    ASSERT_NO_FATAL_FAILURE(startFirst());
    first_->signal(SIGKILL);
    first_->end();
    ASSERT_NO_FATAL_FAILURE(startFirst());
    expectAnswered();
    // One that starts while the other ends comes after it, to the port as well.
    first_->signal(SIGTERM);
    const auto next = start();
    EXPECT_TRUE(next->says("Running · waiting for a viewer")) << next->said();
    EXPECT_EQ(first_->end(), 0) << first_->said();
    EXPECT_THAT(next->said(), testing::Not(testing::HasSubstr("in use")));
}

TEST_F(ApplicationEndToEnd, itQuitsFromItsPanel) {
    ASSERT_NO_FATAL_FAILURE(startFirst());
    expectAnswered();
    ASSERT_TRUE(person_->press(*first_, "push button", "Quit Velmora")) << person_->describe(*first_);
    EXPECT_EQ(first_->end(), 0) << first_->said();
}

TEST_F(ApplicationEndToEnd, thePanelThatIsAWindowDoesNotKeepItFromQuitting) {
    ASSERT_NO_FATAL_FAILURE(sitDownAt("openbox"));
    ASSERT_NO_FATAL_FAILURE(startFirst());
    expectAnswered();
    EXPECT_TRUE(person_->sees(*first_, "push button", "Stop Server")) << person_->describe(*first_);
    first_->signal(SIGTERM);
    EXPECT_EQ(first_->end(), 0) << first_->said();
}

}  // namespace
}  // namespace velmora
