#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <QCoreApplication>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "Platform/Linux/Tray/LinuxTrayPresence.h"
#include "Testing/FakeBusService.h"
#include "Testing/FakeTrayPresence.h"
#include "Testing/PrivateBus.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

class FakeRig {
public:
    TrayPresence& presence() { return presence_; }
    void bringTray() { presence_.setThere(true); }
    void takeTray() { presence_.setThere(false); }

private:
    FakeTrayPresence presence_;
};

/// On a bus of its own, whoever runs the test. The presence is made when it is first asked for.
class LinuxRig {
public:
    /// One socket for all: libdbus reads its name once.
    static std::filesystem::path socket() {
        static const ScratchFolder folder;
        return folder / "bus";
    }
    TrayPresence& presence() {
        if (!presence_) presence_ = std::make_unique<LinuxTrayPresence>(LinuxTrayPresence::Windows::x11);
        return *presence_;
    }

protected:
    PrivateBus bus_{PrivateBus::Role::session, socket()};

private:
    std::unique_ptr<LinuxTrayPresence> presence_;
};

class XEmbedRig : public LinuxRig {
public:
    void bringTray() {
        tray_.emplace(server_.display());
        auto* const x = tray_->connection();
        static constexpr std::string_view name = "_NET_SYSTEM_TRAY_S0";
        auto* const atom = xcb_intern_atom_reply(x, xcb_intern_atom(x, 0, name.size(), name.data()), nullptr);
        const auto window = xcb_generate_id(x);
        xcb_create_window(x, XCB_COPY_FROM_PARENT, window, tray_->root(), 0, 0, 1, 1, 0,
                          XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0, nullptr);
        xcb_set_selection_owner(x, window, atom->atom, XCB_CURRENT_TIME);
        std::free(xcb_get_input_focus_reply(x, xcb_get_input_focus(x), nullptr));  // it has been done
        std::free(atom);
    }
    void takeTray() { tray_.reset(); }

private:
    XServerFixture server_{XServerFixture::Kind::xvfb};
    ScopedDisplay display_{server_.display()};
    std::optional<XTestClient> tray_;
};

class WatcherRig : public LinuxRig {
public:
    void bringTray() {
        watcher_.emplace(bus_.address(), "org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher",
                         "<node><interface name='org.kde.StatusNotifierWatcher'/></node>");
    }
    void takeTray() { watcher_.reset(); }

private:
    ScopedDisplay noDisplay_{""};
    std::optional<FakeBusService> watcher_;
};

template <class Rig>
class TrayPresenceContract : public testing::Test {
protected:
    bool becomes(bool there) {
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (rig.presence().isThere() != there && std::chrono::steady_clock::now() < end)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        return rig.presence().isThere() == there;
    }
    Rig rig;
};
using Rigs = testing::Types<FakeRig, XEmbedRig, WatcherRig>;
TYPED_TEST_SUITE(TrayPresenceContract, Rigs);

TYPED_TEST(TrayPresenceContract, noticesATrayThatComesLaterAndGoes) {
    auto& presence = this->rig.presence();
    std::vector<bool> told;
    presence.onChange = [&] { told.push_back(presence.isThere()); };
    EXPECT_FALSE(presence.isThere());
    this->rig.bringTray();
    EXPECT_TRUE(this->becomes(true));
    this->rig.takeTray();
    EXPECT_TRUE(this->becomes(false));
    this->rig.bringTray();
    EXPECT_TRUE(this->becomes(true));
    EXPECT_EQ(told, (std::vector{true, false, true}));
}

TYPED_TEST(TrayPresenceContract, findsATrayThatIsThereAlready) {
    this->rig.bringTray();
    EXPECT_TRUE(this->becomes(true));
}

TEST(LinuxTrayPresenceTest, withoutABusAndAnXServerThereIsNoTray) {
    const ScopedDisplay noDisplay("");
    PrivateBus bus(PrivateBus::Role::session, LinuxRig::socket());
    bus.stop();
    LinuxTrayPresence presence(LinuxTrayPresence::Windows::x11);
    QCoreApplication::processEvents();
    EXPECT_FALSE(presence.isThere());
}

}  // namespace
}  // namespace velmora

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
