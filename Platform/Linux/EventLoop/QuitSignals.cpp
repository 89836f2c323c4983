#include "Platform/Linux/EventLoop/QuitSignals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <thread>
#include <utility>

namespace velmora {

struct QuitSignals::Watcher {
    sigset_t set;
    int signals = -1;
    int stop = -1;
    std::thread thread;
};

QuitSignals::QuitSignals() : watcher_(std::make_unique<Watcher>()) {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t& set = watcher_->set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    watcher_->signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    watcher_->stop = eventfd(0, EFD_CLOEXEC);
}

QuitSignals::~QuitSignals() {
    stop();
    close(watcher_->signals);
    close(watcher_->stop);
}

void QuitSignals::deliver(Queue& main, std::function<void()> onQuit) {
    watcher_->thread = std::thread([this, &main, onQuit = std::move(onQuit)] {
        pollfd fds[] = {{watcher_->signals, POLLIN, 0}, {watcher_->stop, POLLIN, 0}};
        for (int seen = 0;;) {
            if (poll(fds, 2, -1) < 0) continue;
            if (fds[1].revents) return;
            signalfd_siginfo info{};
            if (read(watcher_->signals, &info, sizeof info) != sizeof info) continue;
            if (++seen > 1) _exit(128 + static_cast<int>(info.ssi_signo));
            main.post([onQuit] { onQuit(); });
        }
    });
}

void QuitSignals::stop() {
    if (!watcher_->thread.joinable()) return;
    eventfd_write(watcher_->stop, 1);
    watcher_->thread.join();
    pthread_sigmask(SIG_UNBLOCK, &watcher_->set, nullptr);
}

}  // namespace velmora
