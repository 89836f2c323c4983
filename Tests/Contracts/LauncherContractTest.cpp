#include <gtest/gtest.h>

#include <QApplication>
#include <QWidget>
#include <algorithm>
#include <chrono>
#include <memory>

#include "App/LauncherWindow.h"
#include "Platform/Linux/EventLoop/QtMainQueue.h"
#include "Testing/FakeLauncher.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr PixelRect display{0, 0, 800, 600};

struct FakeFixture {
    FakeLauncher launcher;
    std::optional<std::string> shown() const { return launcher.shown; }
    std::vector<std::string> opened() const { return launcher.opened; }
    template <class F>
    bool becomes(F condition) {
        return condition();
    }
};

struct WindowFixture {
    QtMainQueue main;
    ThreadQueue worker{"worker"};
    std::vector<std::string> asked;
    LauncherWindow launcher{main,
                            worker,
                            [this](const std::string& target) -> Result<std::string> {
                                main.post([this, target] { asked.push_back(target); });
                                if (target == "nothing") return Failure{"There is no such thing"};
                                return target;
                            },
                            {.complaintTime = 50ms}};

    std::optional<std::string> shown() const {
        for (const QWidget* widget : QApplication::topLevelWidgets())
            if (widget->isVisible()) return widget->windowTitle().toStdString();
        return std::nullopt;
    }
    std::vector<std::string> opened() const { return asked; }
    template <class F>
    bool becomes(F condition) {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (!condition() && std::chrono::steady_clock::now() < end)
            QApplication::processEvents(QEventLoop::AllEvents, 5);
        return condition();
    }
};

template <class Fixture>
class LauncherContract : public testing::Test {
protected:
    void expectShown(const std::optional<std::string>& text) {
        EXPECT_TRUE(fixture_.becomes([&] { return fixture_.shown() == text; }))
            << fixture_.shown().value_or("nothing");
    }
    Fixture fixture_;
};
using Fixtures = testing::Types<FakeFixture, WindowFixture>;
TYPED_TEST_SUITE(LauncherContract, Fixtures);

TYPED_TEST(LauncherContract, showsWhatItIsToldAndOpensIt) {
    auto& fixture = this->fixture_;
    fixture.launcher.show("a", display);
    this->expectShown("a");
    fixture.launcher.show("ab", display);
    this->expectShown("ab");
    fixture.launcher.hide();
    this->expectShown(std::nullopt);
    fixture.launcher.show("abc", {});
    this->expectShown("abc");
    fixture.launcher.open("abc");
    this->expectShown(std::nullopt);
    EXPECT_TRUE(fixture.becomes([&] { return fixture.opened() == std::vector<std::string>{"abc"}; }));
}

TEST(LauncherWindowTest, saysForAWhileWhyNothingWasOpened) {
    WindowFixture fixture;
    fixture.launcher.open("nothing");
    // A slow machine may go past the time between two looks, but the title stays.
    const auto isSaid = [] {
        return std::ranges::any_of(QApplication::topLevelWidgets(), [](const QWidget* widget) {
            return widget->windowTitle() == "There is no such thing";
        });
    };
    EXPECT_TRUE(fixture.becomes(isSaid));
    EXPECT_TRUE(fixture.becomes([&] { return !fixture.shown(); }));
}

class Qt : public testing::Environment {
public:
    void SetUp() override { application_ = std::make_unique<QApplication>(argc_, argv_); }
    void TearDown() override { application_.reset(); }

private:
    int argc_ = 1;
    char name_[5] = "test";
    char* argv_[2] = {name_, nullptr};
    std::unique_ptr<QApplication> application_;
};
[[maybe_unused]] const auto* const qt = testing::AddGlobalTestEnvironment(new Qt);

}  // namespace
}  // namespace velmora
