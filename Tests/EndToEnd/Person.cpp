#include "Tests/EndToEnd/Person.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

namespace velmora {

namespace {

const Control* onScreen(const std::vector<Control>& controls, const std::string& role,
                        const std::string& name) {
    const auto found = std::ranges::find_if(controls, [&](const Control& control) {
        return control.isShowing && control.role == role && control.name == name;
    });
    return found == controls.end() ? nullptr : &*found;
}

template <class T>
std::unique_ptr<T, void (*)(void*)> own(T* reply) {
    return {reply, std::free};
}

/// By the name of its class, which toolkits set whatever a window's title.
bool isCalled(xcb_connection_t* c, xcb_window_t window, const std::string& name) {
    const auto names = own(xcb_get_property_reply(
        c, xcb_get_property(c, 0, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, 64), nullptr));
    if (!names) return false;
    const std::string_view words(static_cast<const char*>(xcb_get_property_value(names.get())),
                                 static_cast<std::size_t>(xcb_get_property_value_length(names.get())));
    return words.find(name) != std::string_view::npos;
}

/// A window of this name, no larger than trays make theirs, somewhere below `window`.
std::optional<PixelRect> smallWindow(xcb_connection_t* c, xcb_window_t window, const std::string& name) {
    constexpr int least = 12, most = 64;
    const auto tree = own(xcb_query_tree_reply(c, xcb_query_tree(c, window), nullptr));
    if (!tree) return std::nullopt;
    const xcb_window_t* const children = xcb_query_tree_children(tree.get());
    for (int i = 0; i < xcb_query_tree_children_length(tree.get()); ++i) {
        if (const auto found = smallWindow(c, children[i], name)) return found;
        if (!isCalled(c, children[i], name)) continue;
        const auto shape = own(xcb_get_geometry_reply(c, xcb_get_geometry(c, children[i]), nullptr));
        const auto place = own(xcb_translate_coordinates_reply(
            c, xcb_translate_coordinates(c, children[i], tree->root, 0, 0), nullptr));
        if (!shape || !place || shape->width < least || shape->width > most || shape->height > most) continue;
        return PixelRect{place->dst_x, place->dst_y, shape->width, shape->height};
    }
    return std::nullopt;
}

}  // namespace

Person::Person(const Options& options)
    : options_(options),
      server_({.kind = options.server, .size = options.screen, .servesOtherNetworks = true}),
      screen_(server_.display()) {
    if (!server_.ok()) return;
    windowManager_ = start(options.windowManager);
    EXPECT_TRUE(eventually([this] { return screen_.hasWindowManager(); }));
}

std::unique_ptr<RunningProgram> Person::start(const std::vector<std::string>& command,
                                              const std::string& rendezvous) {
    return std::make_unique<RunningProgram>(command,
                                            RunningProgram::Place{.home = options_.home,
                                                                  .display = server_.display(),
                                                                  .rendezvous = rendezvous,
                                                                  .environment = eyes_.environment()});
}

std::optional<Control> Person::find(const RunningProgram& program, const std::string& role,
                                    const std::string& name, std::chrono::milliseconds limit) {
    std::optional<Control> control;
    eventually(
        [&] {
            const auto all = look(program);
            if (const Control* const found = onScreen(all, role, name)) control = *found;
            return control.has_value();
        },
        limit);
    return control;
}

bool Person::sees(const RunningProgram& program, const std::string& role, const std::string& name,
                  const std::function<bool(const Control&)>& condition) {
    return eventually([&] {
        const auto control = find(program, role, name, std::chrono::milliseconds(0));
        return control && condition(*control);
    });
}

bool Person::seesNoMore(const RunningProgram& program, const std::string& role, const std::string& name) {
    return eventually([&] { return !onScreen(look(program), role, name); });
}

std::string Person::describe(const RunningProgram& program) {
    std::string all;
    for (const Control& control : look(program)) {
        all += fmt::format("{}{}{} “{}” {} {},{} {}×{}\n", control.isShowing ? "" : "(hidden) ",
                           control.isEnabled ? "" : "(disabled) ", control.role, control.name, control.value,
                           control.place.x, control.place.y, control.place.width, control.place.height);
    }
    return all;
}

std::vector<std::string> Person::namelessControls(const RunningProgram& program) {
    std::vector<std::string> nameless;
    for (const Control& control : look(program)) {
        if (!control.isShowing || !control.isFocusable || !control.name.empty()) continue;
        nameless.push_back(fmt::format("{} at {},{} in “{}”", control.role, control.place.x, control.place.y,
                                       control.window));
    }
    return nameless;
}

std::optional<ScreenImage> Person::screenshot() {
    return screenshotOf(screen_, {0, 0, options_.screen.width, options_.screen.height});
}

std::optional<PixelRect> Person::trayItem(const std::string& name) {
    std::optional<PixelRect> place;
    eventually([&] { return (place = smallWindow(screen_.connection(), screen_.root(), name)).has_value(); });
    return place;
}

void Person::keepPicture(const std::string& name) {
    const char* const folder = std::getenv("VELMORA_PICTURES");
    if (!folder) return;
    // What has just been said is drawn within a moment; nothing tells from outside when.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    const auto image = screenshot();
    EXPECT_TRUE(image && writePng(*image, std::filesystem::path(folder) / (name + ".png"))) << name;
}

bool Person::press(const RunningProgram& program, const std::string& role, const std::string& name) {
    std::optional<Control> control;
    const bool canBePressed = eventually([&] {
        control = find(program, role, name, std::chrono::milliseconds(0));
        return control && control->isEnabled;
    });
    if (!canBePressed) {
        ADD_FAILURE() << "cannot press the " << role << " “" << name << "”:\n" << describe(program);
        return false;
    }
    return clickAt(control->place.x + control->place.width / 2, control->place.y + control->place.height / 2);
}

bool Person::clickAt(int x, int y, const std::string& button) {
    return use({"mousemove", std::to_string(x), std::to_string(y), "click", button});
}

bool Person::moveTo(int x, int y) {
    return use({"mousemove", std::to_string(x), std::to_string(y)});
}

bool Person::keys(const std::vector<std::string>& names) {
    std::vector<std::string> what{"key"};
    what.insert(what.end(), names.begin(), names.end());
    return use(what);
}

bool Person::type(const std::string& text) {
    return use({"type", "--delay", "8", text});
}

bool Person::fill(const RunningProgram& program, const std::string& name, const std::string& text) {
    if (!press(program, "text", name) || !keys({"ctrl+a"}) || !type(text)) return false;
    if (name == "Password") return true;  // it does not tell
    // Fields may group what they hold.
    const auto lengthOf = [](const std::string& words) {
        return std::ranges::count_if(words, [](char c) { return c != ' '; });
    };
    const bool holds = sees(program, "text", name,
                            [&](const Control& field) { return lengthOf(field.value) == lengthOf(text); });
    EXPECT_TRUE(holds) << name << " does not take “" << text << "”:\n" << describe(program);
    return holds;
}

bool Person::use(std::vector<std::string> what) {
    what.insert(what.begin(), "xdotool");
    const auto hands = start(what);
    const bool done = hands->end(within(20)) == 0;
    EXPECT_TRUE(done) << hands->said();
    return done;
}

}  // namespace velmora
