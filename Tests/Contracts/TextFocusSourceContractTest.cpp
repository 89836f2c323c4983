#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/Accessibility/AtSpiTextFocusSource.h"
#include "Testing/DiaryReader.h"
#include "Testing/FakeTextFocusSource.h"
#include "Testing/PrivateBus.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;

struct FakeFixture {
    ThreadQueue main{"main"};
    FakeTextFocusSource source{main};

    bool isReady() { return true; }
    void focusField() {
        main.runSync([this] { source.focus(FocusedElement{FocusedElement::Role::textArea, true}); });
    }
    void focusSomethingElse() {
        main.runSync([this] { source.focus(std::nullopt); });
    }
    void endField() { focusSomethingElse(); }
};

/// A desktop with two windows: a program with a field, and a terminal that says nothing of itself.
struct DesktopFixture {
    XServerFixture server{XServerFixture::Kind::xvfb};
    XTestClient screen{server.display()};
    ScopedDisplay display{server.display()};
    PrivateBus bus{PrivateBus::Role::session};
    ScratchFolder home;
    std::vector<std::unique_ptr<ChildProgram>> programs;
    std::unique_ptr<ChildProgram> field;
    std::string fieldClass;
    ThreadQueue main{"main"};
    std::unique_ptr<AtSpiTextFocusSource> source_ = std::make_unique<AtSpiTextFocusSource>(main);
    AtSpiTextFocusSource& source = *source_;

    explicit DesktopFixture(const std::vector<std::string>& program, std::string windowClass)
        : fieldClass(std::move(windowClass)) {
        programs.push_back(run({"/usr/libexec/at-spi-bus-launcher", "--launch-immediately"}));
        programs.push_back(run({"openbox"}));
        for (int i = 0; i < 1000 && !screen.hasWindowManager(); ++i) std::this_thread::sleep_for(10ms);
        programs.push_back(run({"xterm", "-geometry", "20x5+700+500"}));
        field = run(program);
    }
    std::unique_ptr<ChildProgram> run(const std::vector<std::string>& command) {
        const std::string folder = home.path().string();
        auto started = server.run(command, {"DBUS_SESSION_BUS_ADDRESS=" + bus.address(), "HOME=" + folder,
                                            "XDG_CONFIG_HOME=" + folder, "XDG_RUNTIME_DIR=" + folder,
                                            "GSETTINGS_BACKEND=memory", "NO_AT_BRIDGE",
                                            // Stands for the desktop's setting, which Qt reads at its start.
                                            "QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1"});
        return started ? *std::move(started) : nullptr;
    }
    bool activate(const std::string& windowClass) {
        const auto hands = run({"xdotool", "search", "--sync", "--onlyvisible", "--class", windowClass,
                                "windowactivate", "--sync"});
        return hands && hands->waitForExit(30s) == 0;
    }
    bool isReady() { return server.ok() && field && activate("XTerm") && activate(fieldClass); }
    void focusField() { EXPECT_TRUE(activate(fieldClass)); }
    void focusSomethingElse() { EXPECT_TRUE(activate("XTerm")); }
    void endField() { field.reset(); }
};
struct GtkFixture : DesktopFixture {
    GtkFixture() : DesktopFixture({"mousepad", "--disable-server"}, "mousepad") {}
};
struct QtFixture : DesktopFixture {
    QtFixture() : DesktopFixture({TEXT_FIELD, "nothing-is-typed"}, "TextField") {}
};

template <class Fixture>
class TextFocusSourceContract : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(fixture_.isReady()); }
    void TearDown() override {
        fixture_.main.runSync([this] { watch_.reset(); });
    }
    void watch() {
        fixture_.main.runSync([this] {
            watch_ = fixture_.source.watch([this](const auto& focused) {
                EXPECT_TRUE(fixture_.main.isCurrent());
                told_.push_back(focused && focused->isEditable);
            });
            EXPECT_TRUE(told_.empty()) << "told from inside the call";
        });
    }
    bool hears(bool isEditable) {
        for (int i = 0; i < 3000; ++i) {
            bool heard = false;
            fixture_.main.runSync([&] { heard = !told_.empty() && told_.back() == isEditable; });
            if (heard) return true;
            std::this_thread::sleep_for(10ms);
        }
        return false;
    }
    Fixture fixture_;
    std::vector<bool> told_;  // of the main queue
    std::unique_ptr<TextFocusSource::Watch> watch_;
};
using Fixtures = testing::Types<FakeFixture, GtkFixture, QtFixture>;
TYPED_TEST_SUITE(TextFocusSourceContract, Fixtures);

TYPED_TEST(TextFocusSourceContract, itTellsWhatHasTheFocusAtTheBeginningAndAfterEachChange) {
    this->fixture_.focusField();
    this->watch();
    ASSERT_TRUE(this->hears(true));
    this->fixture_.focusSomethingElse();
    ASSERT_TRUE(this->hears(false));
    this->fixture_.focusField();
    ASSERT_TRUE(this->hears(true));
    this->fixture_.endField();
    EXPECT_TRUE(this->hears(false));
}

TYPED_TEST(TextFocusSourceContract, aWatchThatHasEndedTellsNothingAndANewOneBeginsAnew) {
    this->fixture_.focusSomethingElse();
    this->watch();
    ASSERT_TRUE(this->hears(false));
    this->fixture_.main.runSync([this] {
        this->watch_.reset();
        this->told_.clear();
    });
    this->fixture_.focusField();
    EXPECT_TRUE(this->told_.empty());
    this->watch();
    EXPECT_TRUE(this->hears(true));
}

TEST(AtSpiTextFocusSourceTest, withoutABusNothingHasTheFocusAndOneLineSaysSo) {
    const PrivateBus bus(PrivateBus::Role::session);  // on which no accessibility bus is known
    DiaryReader diary;
    ThreadQueue main("main");
    AtSpiTextFocusSource source(main);
    for (int i = 0; i < 2; ++i) {
        std::atomic<int> told = 0;
        std::unique_ptr<TextFocusSource::Watch> watch;
        main.runSync([&] {
            watch = source.watch([&](const auto& focused) {
                EXPECT_FALSE(focused);
                ++told;
            });
        });
        for (int waited = 0; told == 0 && waited < 1000; ++waited) std::this_thread::sleep_for(10ms);
        EXPECT_EQ(told, 1);
        main.runSync([&] { watch.reset(); });
    }
    const auto lines = diary.hostLines();
    EXPECT_EQ(
        std::ranges::count_if(lines,
                              [](const std::string& line) {
                                  return line.starts_with(
                                      "⚠︎ Not known here whether a text field has the keyboard focus: ");
                              }),
        1);
}

}  // namespace
}  // namespace velmora
