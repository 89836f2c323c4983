#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "Shared/ConnectionError.h"
#include "Tests/EndToEnd/PersonTest.h"
#include "Tests/EndToEnd/ProcessFigures.h"

namespace velmora {
namespace {

using Kind = XInputWindow::Event::Kind;

/// The built application before somebody who has never seen it: from the tray item to the host's screen.
class AtTheDesk : public PersonTest {
protected:
    void startAll() {
        begin();
        if (IsSkipped() || HasFatalFailure()) return;
        ASSERT_NO_FATAL_FAILURE(startHostDesk());
        ASSERT_NO_FATAL_FAILURE(startApplication());
    }
    /// The application says what went wrong, as it does everywhere.
    testing::AssertionResult alerts(const ConnectionError& error) {
        std::string text = error.message;
        if (!error.suggestion.empty()) text += "\n\n" + error.suggestion;
        if (person->sees(*application, "label", error.title, within(45)) &&
            person->sees(*application, "label", text))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << error.title << "\n" << person->describe(*application);
    }
    bool choose(const std::string& button) {
        return person->press(*application, "push button", button) &&
               person->seesNoMore(*application, "push button", button);
    }
    std::string wrongPassword() const { return password == "111111" ? "222222" : "111111"; }
};

TEST_F(AtTheDesk, leadsFromTheTrayItemToAnotherScreenAndBack) {
    startAll();
    if (IsSkipped() || HasFatalFailure()) return;

    // The panel
    ASSERT_TRUE(openPanel()) << person->describe(*application);
    EXPECT_TRUE(person->sees(*application, "label", "Online")) << person->describe(*application);
    const std::string own = application->said();
    EXPECT_TRUE(person->sees(*application, "label", own.substr(own.find("Host ID ") + 8, 11)));
    EXPECT_TRUE(person->sees(*application, "label", own.substr(own.find("password ") + 9, 7)));
    EXPECT_THAT(person->namelessControls(*application), testing::IsEmpty());
    person->keepPicture("panel");
    ASSERT_TRUE(person->press(*application, "push button", "Change Password"));
    ASSERT_TRUE(person->seesNoMore(*application, "push button", "Add new device"));
    ASSERT_TRUE(person->sees(*application, "push button", "Cancel")) << person->describe(*application);
    EXPECT_THAT(person->namelessControls(*application), testing::IsEmpty());
    person->keepPicture("change-password");
    ASSERT_TRUE(choose("Cancel"));

    // A device is added, and its screen opens.
    ASSERT_TRUE(openPanel());
    ASSERT_TRUE(person->press(*application, "push button", "Add new device"));
    ASSERT_TRUE(person->sees(*application, "text", "Host ID"));
    EXPECT_THAT(person->namelessControls(*application), testing::IsEmpty());
    person->keepPicture("add-device");
    ASSERT_TRUE(person->keys({"Escape"}));
    ASSERT_TRUE(person->seesNoMore(*application, "text", "Host ID"));
    ASSERT_TRUE(openPanel());
    ASSERT_TRUE(addDevice("Desk", password));
    ASSERT_TRUE(seesPicture(red)) << person->describe(*application) << diaryOf("person");
    EXPECT_TRUE(person->sees(*application, "label", "Local network")) << person->describe(*application);
    EXPECT_THAT(person->namelessControls(*application), testing::IsEmpty());
    keepViewerPicture("viewer");

    // Work
    ASSERT_TRUE(clickPicture(0.5, 0.5));
    ASSERT_TRUE(hostGets(Kind::buttonUp, 1, 1));
    EXPECT_NEAR(hostWindow->take().back().x, hostSize.width / 2, 3);
    ASSERT_TRUE(person->type("Hello there"));
    EXPECT_TRUE(hostGets(Kind::keyUp, 11));
    ASSERT_TRUE(person->use({"mousedown", "1"}) && pointAt(0.7, 0.6) && person->use({"mouseup", "1"}));
    EXPECT_TRUE(hostGets(Kind::buttonUp, 1, 1));
    ASSERT_TRUE(person->use({"click", "--repeat", "3", "4"}));
    EXPECT_TRUE(hostGets(Kind::buttonUp, 3, 4));
    EXPECT_FALSE(hostWindow->isAnythingDown());

    ASSERT_TRUE(person->press(*application, "push button", "Zoom in"));
    EXPECT_TRUE(person->sees(*application, "slider", "Zoom",
                             [](const Control& slider) { return slider.value.starts_with("150"); }));
    keepViewerPicture("viewer-zoomed");
    ASSERT_TRUE(person->press(*application, "push button", "Zoom out"));
    ASSERT_TRUE(person->press(*application, "check box", "Stats"));
    keepViewerPicture("viewer-stats");
    ASSERT_TRUE(person->press(*application, "check box", "Stats"));
    ASSERT_TRUE(person->press(*application, "push button", "Screenshot"));
    EXPECT_TRUE(tells("person", "Screenshot saved: "));
    keepViewerPicture("viewer-screenshot");
    ASSERT_TRUE(person->press(*application, "push button", "Full Screen"));
    EXPECT_TRUE(eventually([&] { return seesPicture(red) && picture.height > personSize.height - 4; }));
    keepViewerPicture("viewer-full-screen");
    ASSERT_TRUE(pointAt(0.5, 0));
    ASSERT_TRUE(person->press(*application, "push button", "Full Screen"));
    ASSERT_TRUE(eventually([&] { return seesPicture(red) && picture.height < personSize.height - 4; }));

    // The end: of the window, then of the application
    ASSERT_TRUE(closeWindow("Desk")) << person->describe(*application);
    EXPECT_TRUE(host->says("waiting for a viewer", 2)) << host->said();
    ASSERT_TRUE(openPanel());
    EXPECT_TRUE(person->sees(*application, "push button", "Desk", [](const Control& row) {
        return row.description == "Online";
    })) << person->describe(*application);
    person->keepPicture("panel-with-device");
    ASSERT_TRUE(person->press(*application, "push button", "Quit Velmora"));
    EXPECT_EQ(application->end(), 0);
    EXPECT_THAT(complaintsOf("person", {"software decode", "Could not create the virtual display"}),
                testing::IsEmpty());
}

TEST_F(AtTheDesk, saysWhatWentWrongAndLeadsOn) {
    startAll();
    if (IsSkipped() || HasFatalFailure()) return;

    // A wrong password leads to the window that asks for the right one.
    ASSERT_TRUE(openPanel());
    ASSERT_TRUE(addDevice("Desk", wrongPassword()));
    ASSERT_TRUE(alerts(ConnectionError::wrongPassword("Desk")));
    EXPECT_THAT(person->namelessControls(*application), testing::IsEmpty());
    person->keepPicture("alert-wrong-password");
    ASSERT_TRUE(choose("Enter Password…"));
    EXPECT_TRUE(person->sees(*application, "text", "Host ID",
                             [this](const Control& field) { return field.value == hostId(); }));
    EXPECT_TRUE(person->sees(*application, "text", "Name",
                             [](const Control& field) { return field.value == "Desk"; }));
    ASSERT_TRUE(person->fill(*application, "Password", password));
    person->keepPicture("enter-password");
    ASSERT_TRUE(choose("Connect"));
    ASSERT_TRUE(seesPicture(red)) << person->describe(*application) << diaryOf("person");

    // The host ends, and comes back.
    host->signal(SIGTERM);
    ASSERT_TRUE(alerts(ConnectionError::endedByHost("Desk")));
    person->keepPicture("alert-ended-by-host");
    ASSERT_TRUE(choose("Cancel"));
    EXPECT_EQ(host->end(), 0);
    ASSERT_NO_FATAL_FAILURE(launchHostAt(server().display()));

    // Somebody else is there first.
    const auto other = std::make_unique<RunningProgram>(
        homes->at(HomeNetworks::Place::viewer,
                  {LOOK_PROGRAM, HomeNetworks::hostAddress, "--password", password, "--script", "-"}),
        RunningProgram::Place{.home = homeOf("other"), .takesLines = true});
    ASSERT_TRUE(host->says("Streaming to ")) << other->said();
    ASSERT_TRUE(openPanel());
    ASSERT_TRUE(person->press(*application, "push button", "Desk"));
    ASSERT_TRUE(alerts(ConnectionError::busy("Desk")));
    person->keepPicture("alert-busy");
    other->signal(SIGTERM);
    EXPECT_TRUE(other->end());
    ASSERT_TRUE(host->says("waiting for a viewer", 2));
    ASSERT_TRUE(choose("Try Again"));
    ASSERT_TRUE(seesPicture(red)) << person->describe(*application) << diaryOf("person");

    // The host vanishes.
    host->signal(SIGKILL);
    ASSERT_TRUE(alerts(ConnectionError::connectionLost("Desk")));
    person->keepPicture("alert-connection-lost");
    ASSERT_TRUE(choose("Cancel"));
    EXPECT_TRUE(application->isRunning());
}

TEST_F(AtTheDesk, aWindowLeavesNothingBehindWhenItCloses) {
    startAll();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(openPanel() && addDevice("Desk", password));
    constexpr int warmUp = 2, cycles = 10;
    constexpr std::size_t mostIdle = 150 * 1024;  // KiB
    constexpr std::size_t mostKept = 2 * 1024;
    ProcessFigures before;
    const auto figures = [this] { return ProcessFigures::of(application->pid()); };
    for (int cycle = 1; cycle <= warmUp + cycles; ++cycle) {
        if (cycle > 1) {
            ASSERT_TRUE(openPanel() && person->press(*application, "push button", "Desk"));
        }
        ASSERT_TRUE(seesPicture(red)) << "cycle " << cycle << person->describe(*application);
        ASSERT_TRUE(closeWindow("Desk"));
        ASSERT_TRUE(host->says("waiting for a viewer", cycle + 1));
        if (cycle == warmUp) before = figures();
    }
    EXPECT_TRUE(eventually([&] { return figures().threads <= before.threads; })) << figures().threads;
    EXPECT_TRUE(eventually([&] { return figures().descriptors <= before.descriptors; }))
        << before.descriptors << " before, then " << figures().descriptors;
    if (std::getenv("ASAN_OPTIONS")) return;  // the sanitizer holds on to what has been freed
    EXPECT_TRUE(eventually([&] { return figures().residentKiB <= before.residentKiB + mostKept; }));
    std::cout << fmt::format("{} KiB before, {} KiB after {} cycles\n", before.residentKiB,
                             figures().residentKiB, cycles);
    EXPECT_LE(figures().residentKiB, mostIdle);
}

TEST_F(AtTheDesk, anotherDisplayIsChosenInTheToolbar) {
    begin();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_NO_FATAL_FAILURE(startServer(XServerFixture::Kind::xorgDummy));
    ASSERT_NO_FATAL_FAILURE(moveDisplayRight());
    ASSERT_NO_FATAL_FAILURE(startHostWithDesktop());
    ASSERT_NO_FATAL_FAILURE(startApplication());
    screen().fill({0, 0, 1024, 768}, green);
    screen().fill(display(), red);
    ASSERT_TRUE(openPanel() && addDevice("Desk", password));
    ASSERT_TRUE(seesPicture(red)) << diaryOf("person");  // the main display, which comes first in the list

    const auto chooses = [this](const std::vector<std::string>& keys) {
        return person->press(*application, "push button", "Display") && person->keys(keys);
    };
    ASSERT_TRUE(chooses({"End", "Return"}));
    EXPECT_TRUE(seesPicture(green)) << diaryOf("person");
    ASSERT_TRUE(chooses({"End", "Up", "Return"}));
    EXPECT_TRUE(seesPicture(red)) << diaryOf("person");
    EXPECT_TRUE(closeWindow("Desk"));
}

}  // namespace
}  // namespace velmora
