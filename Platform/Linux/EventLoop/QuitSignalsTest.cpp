#include "Platform/Linux/EventLoop/QuitSignals.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <future>

#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

// Each in a process of its own: signals are everybody's.

TEST(QuitSignalsDeathTest, aSignalIsACallOnTheMainQueue) {
    const auto program = [] {
        QuitSignals signals;
        ThreadQueue main("main");
        std::promise<void> quit;
        signals.deliver(main, [&] { quit.set_value(); });
        kill(getpid(), SIGTERM);
        quit.get_future().wait();
        signals.stop();
        std::_Exit(7);
    };
    EXPECT_EXIT(program(), testing::ExitedWithCode(7), "");
}

TEST(QuitSignalsDeathTest, onceTheQueueGoesASignalEndsTheProcess) {
    const auto program = [] {
        QuitSignals signals;
        {
            ThreadQueue main("main");
            signals.deliver(main, [] {});
            signals.stop();
        }
        kill(getpid(), SIGINT);
        std::_Exit(7);
    };
    EXPECT_EXIT(program(), testing::KilledBySignal(SIGINT), "");
}

}  // namespace
}  // namespace velmora
