#include "Platform/Linux/System/LinuxKeepAwake.h"

#include <unistd.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "Platform/Linux/System/BusCaller.h"
#include "Platform/Linux/System/XDisplayPower.h"

namespace velmora {
namespace {

constexpr const char* applicationName = "Velmora";

constexpr BusCaller::Target logind{"org.freedesktop.login1", "/org/freedesktop/login1",
                                   "org.freedesktop.login1.Manager"};
constexpr BusCaller::Target powerManager{"org.freedesktop.PowerManagement",
                                         "/org/freedesktop/PowerManagement/Inhibit",
                                         "org.freedesktop.PowerManagement.Inhibit"};
constexpr BusCaller::Target gnomeSession{"org.gnome.SessionManager", "/org/gnome/SessionManager",
                                         "org.gnome.SessionManager"};
constexpr BusCaller::Target screenSaver{"org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver",
                                        "org.freedesktop.ScreenSaver"};

// Of org.gnome.SessionManager.Inhibit.
constexpr std::uint32_t gnomeSuspend = 4;
constexpr std::uint32_t gnomeIdle = 8;

/// logind holds its lock for as long as this is open.
struct LockDescriptor {
    explicit LockDescriptor(int d) : descriptor(d) {}
    ~LockDescriptor() { ::close(descriptor); }
    LockDescriptor(const LockDescriptor&) = delete;
    LockDescriptor& operator=(const LockDescriptor&) = delete;
    const int descriptor;
};

}  // namespace

class LinuxKeepAwake::Services {
public:
    BusCaller system{BusCaller::Bus::system};
    BusCaller session{BusCaller::Bus::session};
    XDisplayPower display;
};

/// What undoes an assertion; on the worker.
class LinuxKeepAwake::Inhibition {
public:
    void onRelease(UniqueFunction<void()> undo) { undos_.push_back(std::move(undo)); }
    bool holdsAnything() const { return !undos_.empty(); }
    void release() {
        for (auto& undo : std::exchange(undos_, {})) undo();
    }

    /// Asks for a cookie and gives it back at the end.
    Status askForCookie(Services& services, const BusCaller::Target& target, const char* inhibit,
                        GVariant* arguments, const char* uninhibit) {
        const auto answer = services.session.call(target, inhibit, arguments, "(u)");
        if (!answer) return answer.error();
        guint32 cookie = 0;
        g_variant_get(answer->get(), "(u)", &cookie);
        onRelease([&services, target, uninhibit, cookie] {
            [[maybe_unused]] const auto done =
                services.session.call(target, uninhibit, g_variant_new("(u)", cookie), "()");
        });
        return Done{};
    }
    Status askGnome(Services& services, const std::string& reason, std::uint32_t flags) {
        return askForCookie(services, gnomeSession, "Inhibit",
                            g_variant_new("(susu)", applicationName, 0u, reason.c_str(), flags), "Uninhibit");
    }

private:
    std::vector<UniqueFunction<void()>> undos_;
};

class LinuxKeepAwake::Held final : public Assertion {
public:
    Held(ThreadQueue& worker, std::shared_ptr<Inhibition> inhibition)
        : worker_(worker), inhibition_(std::move(inhibition)) {}
    ~Held() override {
        worker_.post([inhibition = inhibition_] { inhibition->release(); });
    }
    const Liveness& liveness() const { return liveness_; }

private:
    ThreadQueue& worker_;
    const std::shared_ptr<Inhibition> inhibition_;
    Liveness liveness_;
};

LinuxKeepAwake::LinuxKeepAwake(Queue& main) : main_(main), services_(std::make_shared<Services>()) {}

// What was held ends with the connections of the services.
LinuxKeepAwake::~LinuxKeepAwake() = default;

std::unique_ptr<KeepAwake::Assertion> LinuxKeepAwake::hold(const std::string& reason, Outcome outcome,
                                                           Inhibit inhibit) {
    auto inhibition = std::make_shared<Inhibition>();
    auto held = std::make_unique<Held>(worker_, inhibition);
    worker_.post([inhibition, inhibit, reason, services = services_, &main = main_,
                  tell = held->liveness().guard(std::move(outcome))]() mutable {
        auto status = inhibit(*services, reason, *inhibition);
        if (inhibition->holdsAnything()) status = Done{};
        main.post(
            [tell = std::move(tell), status = std::move(status)]() mutable { tell(std::move(status)); });
    });
    return held;
}

std::unique_ptr<KeepAwake::Assertion> LinuxKeepAwake::preventIdleSystemSleep(const std::string& reason,
                                                                             Outcome outcome) {
    return hold(
        reason, std::move(outcome), [](Services& services, const std::string& why, Inhibition& inhibition) {
            int descriptor = -1;
            const auto answer = services.system.call(
                logind, "Inhibit", g_variant_new("(ssss)", "idle", applicationName, why.c_str(), "block"),
                "(h)", &descriptor);
            if (answer && descriptor >= 0)
                inhibition.onRelease(
                    [lock = std::make_unique<LockDescriptor>(descriptor)]() mutable { lock.reset(); });
            // Desktops look at their own inhibitions before they suspend, not only at logind's.
            [[maybe_unused]] const auto gnome = inhibition.askGnome(services, why, gnomeSuspend);
            [[maybe_unused]] const auto other =
                inhibition.askForCookie(services, powerManager, "Inhibit",
                                        g_variant_new("(ss)", applicationName, why.c_str()), "UnInhibit");
            return answer ? Status(Done{}) : Status(answer.error());
        });
}

std::unique_ptr<KeepAwake::Assertion> LinuxKeepAwake::preventIdleDisplaySleep(const std::string& reason,
                                                                              Outcome outcome) {
    return hold(
        reason, std::move(outcome), [](Services& services, const std::string& why, Inhibition& inhibition) {
            auto status =
                inhibition.askForCookie(services, screenSaver, "Inhibit",
                                        g_variant_new("(ss)", applicationName, why.c_str()), "UnInhibit");
            if (!status) status = inhibition.askGnome(services, why, gnomeIdle);
            if (!status) {
                status = services.display.suspendScreenSaver();
                if (status) inhibition.onRelease([&services] { services.display.resumeScreenSaver(); });
            }
            return status;
        });
}

void LinuxKeepAwake::declareUserActivity(const std::string&) {
    worker_.post([services = services_] {
        [[maybe_unused]] const auto told =
            services->session.call(screenSaver, "SimulateUserActivity", nullptr, "()");
        // Also where the service exists: several of them know the method and do nothing.
        [[maybe_unused]] const auto woken = services->display.wake();
    });
}

std::unique_ptr<KeepAwake::Assertion> LinuxKeepAwake::beginActivity(const std::string&) {
    return std::make_unique<Assertion>();
}

}  // namespace velmora
