#include "Host/TextFocusWatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "Testing/FakeTextFocusSource.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Role = FocusedElement::Role;

class TextFocusWatcherTest : public testing::Test {
protected:
    void start() {
        watcher.start([this](bool takesText) { told.push_back(takesText); });
    }
    VirtualTime time;
    VirtualQueue main{time, "main"};
    FakeTextFocusSource source{main};
    TextFocusWatcher watcher{source, main};
    std::vector<bool> told;
};

TEST_F(TextFocusWatcherTest, textGoesToFieldsOfAnyKindAndToWhatCanBeEdited) {
    EXPECT_FALSE(TextFocusWatcher::takesText(std::nullopt));
    EXPECT_FALSE(TextFocusWatcher::takesText(FocusedElement{}));
    EXPECT_TRUE(TextFocusWatcher::takesText(FocusedElement{.isEditable = true}));
    for (const Role role :
         {Role::textField, Role::textArea, Role::searchField, Role::comboBox, Role::secureTextField})
        EXPECT_TRUE(TextFocusWatcher::takesText(FocusedElement{.role = role})) << static_cast<int>(role);
}

TEST_F(TextFocusWatcherTest, theBeginningIsAlwaysToldAndThenOnlyChanges) {
    start();
    time.settle();
    EXPECT_THAT(told, ElementsAre(false));
    source.focus(FocusedElement{.role = Role::textField});
    time.advanceBy(1s);
    source.focus(FocusedElement{.role = Role::secureTextField});
    time.advanceBy(1s);
    EXPECT_THAT(told, ElementsAre(false, true));
    watcher.stop();
    source.focus(std::nullopt);
    time.advanceBy(1s);
    start();
    time.settle();
    EXPECT_THAT(told, ElementsAre(false, true, false));
}

TEST_F(TextFocusWatcherTest, whatNobodyTellsWithinHalfASecondCountsAsNo) {
    source.isSilent = true;
    start();
    time.advanceBy(499ms);
    EXPECT_THAT(told, IsEmpty());
    time.advanceBy(10s);
    EXPECT_THAT(told, ElementsAre(false));
}

TEST_F(TextFocusWatcherTest, aMomentWithoutFocusBetweenTwoFieldsIsNoNews) {
    source.focus(FocusedElement{.role = Role::textArea});
    start();
    time.settle();
    source.focus(std::nullopt);
    time.advanceBy(50ms);
    source.focus(FocusedElement{.role = Role::textField});
    time.advanceBy(1s);
    EXPECT_THAT(told, ElementsAre(true));
}

}  // namespace
}  // namespace velmora
