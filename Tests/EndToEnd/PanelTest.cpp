#include <gmock/gmock.h>

#include <cstdlib>
#include <deque>
#include <optional>
#include <string_view>

#include "Tests/EndToEnd/EndToEndTest.h"
#include "Tests/EndToEnd/Person.h"

namespace velmora {
namespace {

/// The panel at its tray item, on somebody's desktop.
class PanelEndToEnd : public EndToEndTest {
protected:
    void SetUp() override {
        service_ = startRendezvous();
        person_ =
            std::make_unique<Person>(Person::Options{.home = homeOf("person"), .windowManager = {"icewm"}});
        ASSERT_EQ(person_->error(), "");
        host_ = person_->start({VELMORA_PROGRAM}, rendezvous);
        ASSERT_TRUE(isRegistered(*host_)) << host_->said();
    }

    /// The middle of the small window that the tray has taken in.
    std::optional<PixelRect> trayItem() {
        auto* const x = person_->screen().connection();
        std::deque<xcb_window_t> windows{person_->screen().root()};
        for (; !windows.empty(); windows.pop_front()) {
            const auto window = windows.front();
            if (isTrayItem(window)) {
                auto* const at = xcb_translate_coordinates_reply(
                    x, xcb_translate_coordinates(x, window, person_->screen().root(), 12, 12), nullptr);
                const PixelRect place{at->dst_x, at->dst_y, 1, 1};
                std::free(at);
                return place;
            }
            auto* const tree = xcb_query_tree_reply(x, xcb_query_tree(x, window), nullptr);
            if (!tree) continue;
            const auto* const children = xcb_query_tree_children(tree);
            windows.insert(windows.end(), children, children + xcb_query_tree_children_length(tree));
            std::free(tree);
        }
        return std::nullopt;
    }
    void clickItem(const std::string& button = "1") {
        std::optional<PixelRect> item;
        ASSERT_TRUE(eventually([&] { return (item = trayItem()).has_value(); })) << "no item in the tray";
        ASSERT_TRUE(person_->clickAt(item->x, item->y, button));
    }
    bool isOpen() { return person_->sees(*host_, "push button", "Stop Server"); }
    bool isClosed() { return person_->seesNoMore(*host_, "push button", "Stop Server"); }
    std::string focused() {
        for (const Control& control : person_->look(*host_)) {
            if (control.isFocused && control.isShowing) return control.name;
        }
        return "";
    }

    std::unique_ptr<RunningProgram> service_, host_;
    std::unique_ptr<Person> person_;

private:
    bool isTrayItem(xcb_window_t window) {
        auto* const x = person_->screen().connection();
        auto* const type = xcb_get_property_reply(
            x, xcb_get_property(x, 0, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, 16), nullptr);
        auto* const area = xcb_get_geometry_reply(x, xcb_get_geometry(x, window), nullptr);
        auto* const state = xcb_get_window_attributes_reply(x, xcb_get_window_attributes(x, window), nullptr);
        const bool is = type && area && state && state->map_state == XCB_MAP_STATE_VIEWABLE &&
                        area->width < 64 && area->height < 64 &&
                        std::string_view(static_cast<const char*>(xcb_get_property_value(type)),
                                         static_cast<std::size_t>(xcb_get_property_value_length(type)))
                            .starts_with("Velmora");
        std::free(type);
        std::free(area);
        std::free(state);
        return is;
    }
};

TEST_F(PanelEndToEnd, opensAtEitherClickOnTheItemAndClosesAtAnyOther) {
    ASSERT_NO_FATAL_FAILURE(clickItem("1"));
    ASSERT_TRUE(isOpen()) << person_->describe(*host_);
    ASSERT_NO_FATAL_FAILURE(clickItem("1"));
    ASSERT_TRUE(isClosed()) << person_->describe(*host_);
    ASSERT_TRUE(eventually([&] {  // not at once: the click that closes it might be meant twice
        clickItem("3");
        return person_->sees(*host_, "push button", "Stop Server", within(1));
    }));
    ASSERT_TRUE(person_->clickAt(300, 300));  // the bare desktop
    EXPECT_TRUE(isClosed()) << person_->describe(*host_);
}

TEST_F(PanelEndToEnd, isWorkedByKeysAloneAndSaysWhatEachControlIs) {
    ASSERT_NO_FATAL_FAILURE(clickItem());
    ASSERT_TRUE(isOpen());
    EXPECT_THAT(person_->namelessControls(*host_), testing::IsEmpty());
    EXPECT_TRUE(person_->sees(*host_, "label", "Online"));
    for (const char* name : {"Copy ID", "Change Password", "Copy Password", "Stop Server"}) {
        ASSERT_TRUE(person_->keys({"Tab"}));
        EXPECT_TRUE(person_->sees(*host_, "push button", name, [](const Control& c) { return c.isFocused; }))
            << focused();
    }
    ASSERT_TRUE(person_->keys({"Return"}));
    EXPECT_TRUE(isClosed());
    ASSERT_NO_FATAL_FAILURE(clickItem());
    EXPECT_TRUE(person_->sees(*host_, "push button", "Start Server")) << person_->describe(*host_);
    ASSERT_TRUE(person_->keys({"Escape"}));
    EXPECT_TRUE(person_->seesNoMore(*host_, "push button", "Start Server"));
}

}  // namespace
}  // namespace velmora
