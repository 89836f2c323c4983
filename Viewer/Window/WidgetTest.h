#pragma once

#include <gtest/gtest.h>

#include <QApplication>

namespace velmora {

/// For tests of widgets: an application without a screen, one for the whole program.
class WidgetTest : public testing::Test {
protected:
    WidgetTest() {
        static int argc = 1;
        static char name[] = "test";
        static char* argv[] = {name, nullptr};
        qputenv("QT_QPA_PLATFORM", "offscreen");
        [[maybe_unused]] static auto* const application =
            new QApplication(argc, argv);  // ends with the process
    }
    static void turnEvents() {
        for (int round = 0; round < 3; ++round) QCoreApplication::processEvents();
    }
};

}  // namespace velmora
