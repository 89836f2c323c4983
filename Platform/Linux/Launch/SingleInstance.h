#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace velmora {

/// Makes the program that a user starts twice one program: whoever holds the lock is the first and listens on
/// a local socket; who comes later asks the first to show itself, and ends. The kernel lets go of the lock
/// when its holder ends, however that happens, so what a crash leaves behind is replaced. One per process, on
/// the main thread; needs a QCoreApplication.
class SingleInstance {
public:
    struct Place {
        std::filesystem::path folder;  // made if need be; nobody else's
        std::string name;              // of lock and socket
    };
    struct Parameters {
        std::chrono::milliseconds patience{5000};  // for the first to come up, to answer, or to end
    };
    /// One for each user and folder of settings: those of other settings are another machine to everybody.
    static Place defaultPlace();

    /// Blocks for up to the patience if another one runs: until it has answered, or has gone.
    SingleInstance(const Place& place, const Parameters& parameters);
    explicit SingleInstance(const Place& place) : SingleInstance(place, Parameters{}) {}
    ~SingleInstance();
    SingleInstance(const SingleInstance&) = delete;
    SingleInstance& operator=(const SingleInstance&) = delete;

    /// Also where neither lock nor socket can be had: then a later one will not find us, which is told in the
    /// diary.
    bool isFirst() const { return isFirst_; }
    /// To one that is not the first: what the first said. None: it is there and does not answer.
    const std::optional<std::string>& answer() const { return answer_; }

    /// For the first: called whenever the program is started again, and gives a line for whoever did. None:
    /// we are about to end, and the other shall wait for that.
    void listen(std::function<std::optional<std::string>()> onStartedAgain);

private:
    class Listener;
    bool takeLock();
    bool ask(std::chrono::milliseconds limit);

    const std::filesystem::path lockFile_, socket_;
    int lock_ = -1;
    bool isFirst_ = false;
    std::optional<std::string> answer_;
    std::unique_ptr<Listener> listener_;
};

}  // namespace velmora
