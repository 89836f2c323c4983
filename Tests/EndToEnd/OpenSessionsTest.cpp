#include <gmock/gmock.h>

#include <csignal>

#include "Tests/EndToEnd/PersonTest.h"

namespace velmora {
namespace {

/// The application with a window open on a host, which it found by its ID.
class OpenSessions : public PersonTest {
protected:
    /// The first statement of a test.
    void connect() {
        ASSERT_NO_FATAL_FAILURE(begin());
        if (!homes->areAllowed()) return;
        ASSERT_NO_FATAL_FAILURE(startHostDesk());
        application_ = open({VELMORA_PROGRAM});
        ASSERT_TRUE(isRegistered(*application_)) << application_->said();
        EXPECT_EQ(open({VELMORA_PROGRAM})->end(), 0);
        ASSERT_TRUE(person->press(*application_, "push button", "Add new device"));
        ASSERT_TRUE(person->fill(*application_, "Host ID", hostId()));
        ASSERT_TRUE(person->press(*application_, "text", "Password") && person->type(password));
        ASSERT_TRUE(person->press(*application_, "push button", "Add and Connect"))
            << person->describe(*application_);
        ASSERT_TRUE(seesPicture(red)) << application_->said() << person->describe(*application_);
    }
    /// It has been told, rather than that it missed the viewer some time later.
    bool hostIsTold() { return host->says("waiting for a viewer", 2, within(5)); }
    std::string preferences() const {
        return contentOf(homeOf("person") / "config/velmora/preferences.json");
    }

    std::unique_ptr<RunningProgram> application_;
};

TEST_F(OpenSessions, aSignalEndsThemWithAGoodbyeAndKeepsTheLastPicture) {
    ASSERT_NO_FATAL_FAILURE(connect());
    if (!homes->areAllowed()) return;
    application_->signal(SIGTERM);
    EXPECT_EQ(application_->end(within(5)), 0) << application_->said();
    EXPECT_TRUE(hostIsTold()) << host->said();
    EXPECT_FALSE(std::filesystem::is_empty(homeOf("person") / "cache/velmora/LastFrames"));
    EXPECT_THAT(preferences(), testing::HasSubstr("remoteDevices.saved"));
}

TEST_F(OpenSessions, aScreenThatGoesAwayEndsThemWithAGoodbyeToo) {
    ASSERT_NO_FATAL_FAILURE(connect());
    if (!homes->areAllowed()) return;
    person.reset();
    EXPECT_EQ(application_->end(within(5)), 1) << application_->said();
    EXPECT_TRUE(hostIsTold()) << host->said();
    EXPECT_THAT(preferences(), testing::HasSubstr("remoteDevices.saved"));
}

}  // namespace
}  // namespace velmora
