#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/Display/X11Displays.h"
#include "Testing/FakeDisplays.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"
#include "Tests/Contracts/ContractQueue.h"

namespace velmora {
namespace {

/// One way to provide displays, and to plug them in and out.
class DisplaysRig {
public:
    virtual ~DisplaysRig() = default;
    virtual Displays& displays() = 0;
    virtual ContractQueue& queue() = 0;
    /// Sockets are numbered; the same socket is the same display.
    virtual void plugIn(int socket, const PixelRect& rect) = 0;
    virtual void unplug(int socket) = 0;
    virtual void makeMain(int socket) = 0;
    virtual void endWindowSystem() = 0;
};

class FakeRig final : public DisplaysRig {
public:
    Displays& displays() override { return fake_; }
    ContractQueue& queue() override { return queue_; }
    void plugIn(int socket, const PixelRect& rect) override {
        const auto id = static_cast<DisplayId>(socket + 1);
        unplug(socket);
        plugged_.push_back({.id = id,
                            .name = "Display " + std::to_string(id),
                            .bounds = rect,
                            .pixels = {rect.width, rect.height},
                            .isMain = id == main_});
        for (const Display& other : plugged_) {
            if (other.id != id && other.bounds.x == rect.x && other.bounds.y == rect.y) {
                plugged_.back().isMirror = true;
            }
        }
        fake_.set(plugged_);
    }
    void unplug(int socket) override {
        std::erase_if(plugged_, [&](const Display& d) { return d.id == static_cast<DisplayId>(socket + 1); });
        fake_.set(plugged_);
    }
    void makeMain(int socket) override {
        main_ = static_cast<DisplayId>(socket + 1);
        for (Display& display : plugged_) display.isMain = display.id == main_;
        fake_.set(plugged_);
    }
    void endWindowSystem() override { fake_.fail({"gone"}); }

private:
    VirtualContractQueue queue_;
    FakeDisplays fake_;
    std::vector<Display> plugged_;
    DisplayId main_ = 1;
};

class XorgRig final : public DisplaysRig {
public:
    XorgRig()
        : server_(XServerFixture::Kind::xorgDummy), client_(server_.display()), displays_(server_.display()) {
        EXPECT_TRUE(server_.ok()) << server_.error();
    }
    Displays& displays() override { return displays_; }
    ContractQueue& queue() override { return queue_; }
    void plugIn(int socket, const PixelRect& rect) override {
        EXPECT_TRUE(client_.setOutput(nameOf(socket), rect));
    }
    void unplug(int socket) override { EXPECT_TRUE(client_.turnOff(nameOf(socket))); }
    void makeMain(int socket) override { EXPECT_TRUE(client_.makePrimary(nameOf(socket))); }
    void endWindowSystem() override { server_.kill(); }

private:
    static std::string nameOf(int socket) { return "DUMMY" + std::to_string(socket); }
    XServerFixture server_;
    XTestClient client_;
    ThreadContractQueue queue_;
    X11Displays displays_;
};

template <class Rig>
class DisplaysContract : public testing::Test {
protected:
    DisplaysContract() { rig.plugIn(0, {0, 0, 1440, 900}); }
    std::vector<Display> list() {
        auto all = rig.displays().list();
        EXPECT_TRUE(all.ok()) << all.error().text;
        return all ? *all : std::vector<Display>{};
    }
    Rig rig;
};

using Rigs = testing::Types<FakeRig, XorgRig>;
struct RigNames {
    template <class T>
    static std::string GetName(int) {
        return std::is_same_v<T, FakeRig> ? "Fake" : "Xorg";
    }
};
TYPED_TEST_SUITE(DisplaysContract, Rigs, RigNames);

TYPED_TEST(DisplaysContract, listsWhatIsActiveWithTheMainOneFirst) {
    this->rig.plugIn(2, {1440, 0, 800, 600});
    this->rig.makeMain(2);
    const auto all = this->list();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].bounds, (PixelRect{1440, 0, 800, 600}));
    EXPECT_EQ(all[0].pixels, (PixelSize{800, 600}));
    EXPECT_TRUE(all[0].isMain);
    EXPECT_EQ(all[1].bounds, (PixelRect{0, 0, 1440, 900}));
    EXPECT_FALSE(all[1].isMain);
    for (const Display& display : all) {
        EXPECT_NE(display.id, 0u);
        EXPECT_FALSE(display.name.empty());
        EXPECT_FALSE(display.isMirror);
    }
    EXPECT_NE(all[0].id, all[1].id);
    EXPECT_NE(all[0].name, all[1].name);
    EXPECT_EQ(this->rig.displays().mainDisplayId(), all[0].id);
}

TYPED_TEST(DisplaysContract, aDisplayKeepsItsIdThroughChangesOfModeAndAbsence) {
    const DisplayId first = this->list().at(0).id;
    this->rig.plugIn(1, {1440, 0, 800, 600});
    const DisplayId second = this->list().at(1).id;
    this->rig.plugIn(0, {0, 0, 1280, 720});
    ASSERT_TRUE(this->rig.displays().find(first).has_value());
    EXPECT_EQ(this->rig.displays().find(first)->pixels, (PixelSize{1280, 720}));
    this->rig.unplug(1);
    EXPECT_EQ(this->list().size(), 1u);
    EXPECT_FALSE(this->rig.displays().find(second).has_value());
    this->rig.plugIn(1, {1280, 0, 800, 600});
    EXPECT_TRUE(this->rig.displays().find(second).has_value());
}

TYPED_TEST(DisplaysContract, aSecondDisplayOverTheFirstIsItsMirror) {
    this->rig.plugIn(1, {0, 0, 1440, 900});
    const auto all = this->list();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[0].isMain);
    EXPECT_FALSE(all[0].isMirror);
    EXPECT_TRUE(all[1].isMirror);
}

TYPED_TEST(DisplaysContract, itsObserverIsToldOnItsQueueUntilItIsTakenBack) {
    int changes = 0;
    auto& queue = this->rig.queue();
    this->rig.displays().observe(&queue.queue(), [&] {
        EXPECT_TRUE(queue.queue().isCurrent());
        ++changes;
        queue.signal();
    });
    this->rig.plugIn(1, {1440, 0, 800, 600});
    EXPECT_TRUE(queue.waitUntil([&] { return changes > 0 && this->rig.displays().list()->size() == 2; }));
    this->rig.plugIn(0, {0, 0, 1280, 720});
    EXPECT_TRUE(queue.waitUntil([&] { return this->list().at(0).pixels == PixelSize{1280, 720}; }));

    this->rig.displays().observe(nullptr, {});
    int before = 0;
    queue.run([&] { before = changes; });
    this->rig.unplug(1);
    queue.run([&] { EXPECT_EQ(changes, before); });
}

TYPED_TEST(DisplaysContract, theEndOfTheWindowSystemIsToldInWords) {
    int changes = 0;
    auto& queue = this->rig.queue();
    this->rig.displays().observe(&queue.queue(), [&] {
        ++changes;
        queue.signal();
    });
    EXPECT_EQ(this->list().size(), 1u);
    this->rig.endWindowSystem();
    EXPECT_TRUE(queue.waitUntil([&] { return changes > 0; }));
    const auto all = this->rig.displays().list();
    ASSERT_FALSE(all.ok());
    EXPECT_FALSE(all.error().text.empty());
    EXPECT_EQ(this->rig.displays().mainDisplayId(), 0u);
    this->rig.displays().observe(nullptr, {});
    queue.run([] {});
}

TEST(X11DisplaysTest, monitorsCutOutOfOneScreenAreDisplays) {
    XServerFixture server(XServerFixture::Kind::xvfb);
    ASSERT_TRUE(server.ok()) << server.error();
    XTestClient client(server.display());
    int changes = 0;
    ThreadContractQueue queue;
    X11Displays displays(server.display());
    displays.observe(&queue.queue(), [&] {
        ++changes;
        queue.signal();
    });
    ASSERT_TRUE(client.defineMonitor("right", {1440, 0, 1440, 900}));
    ASSERT_TRUE(client.defineMonitor("left", {0, 0, 1440, 900}, "screen"));
    const auto all = displays.list();
    ASSERT_TRUE(all.ok());
    ASSERT_EQ(all->size(), 2u);
    EXPECT_EQ(all->at(0).name, "left");
    EXPECT_EQ(all->at(1).name, "right");
    EXPECT_EQ(all->at(1).bounds, (PixelRect{1440, 0, 1440, 900}));
    EXPECT_TRUE(queue.waitUntil([&] { return changes > 0; }));
}

TEST(X11DisplaysTest, noServerIsAFailureInWords) {
    ScopedDisplay none("");
    const auto unset = makeDisplays()->list();
    ASSERT_FALSE(unset.ok());
    EXPECT_THAT(unset.error().text, testing::HasSubstr("DISPLAY is not set"));
    const auto dead = X11Displays(":9999").list();
    ASSERT_FALSE(dead.ok());
    EXPECT_THAT(dead.error().text, testing::HasSubstr(":9999"));
}

}  // namespace
}  // namespace velmora
