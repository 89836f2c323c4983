#include "Benchmarks/Agent/Tasks.h"

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <regex>
#include <utility>

namespace velmora {
namespace {

using Json = nlohmann::json;
using Point = Desktop::Point;
using Place = Task::Place;

/// Parts of the width and the height.
constexpr std::array<Point, 5> places{{{0.04, 0.06}, {0.95, 0.05}, {0.5, 0.5}, {0.03, 0.94}, {0.96, 0.95}}};
constexpr std::array<int, 5> sizes{8, 12, 16, 24, 40};

int at(double part, int whole) {
    return static_cast<int>(part * whole);
}

/// Clicks on what is of this colour, and looks at what comes of it.
std::optional<Desktop::Answer> click(Desktop& desktop, Observations& seen, std::uint32_t colour,
                                     Json options = {}) {
    const auto point = desktop.find(colour);
    if (!point) return std::nullopt;
    options["x"] = point->x;
    options["y"] = point->y;
    const auto clicked = desktop.call("click", options);
    auto shot = desktop.call("screenshot");
    seen.clickToPicture.push_back((clicked.took + shot.took).count());
    return shot;
}

bool clickTarget(Desktop& desktop, Observations& seen, Point place, int size, Json options = Json::object()) {
    const int button = options.value("button", "left") == "right" ? 1 : 0;
    desktop.show("target", {{"x", at(place.x, desktop.size().width)},
                            {"y", at(place.y, desktop.size().height)},
                            {"size", size},
                            {"button", button},
                            {"count", options.value("count", 1)}});
    const auto after = click(desktop, seen, magenta, std::move(options));
    if (!after || !desktop.isRight()) return false;
    const auto image = readJpeg(after->jpeg);
    if (!image || !middleOf(*image, green)) ++seen.late;
    return true;
}

bool drag(Desktop& desktop, Point from, Point to, int size) {
    const PixelSize whole = desktop.size();
    desktop.show("drag", {{"x", at(from.x, whole.width)},
                          {"y", at(from.y, whole.height)},
                          {"toX", at(to.x, whole.width)},
                          {"toY", at(to.y, whole.height)},
                          {"size", size}});
    const auto box = desktop.find(magenta);
    if (!box) return false;
    // Its frame is where the task says; boxes of half a pixel's shift do not count.
    const auto call =
        desktop.call("drag", {{"x", box->x},
                              {"y", box->y},
                              {"to_x", box->x + at(to.x, whole.width) - at(from.x, whole.width)},
                              {"to_y", box->y + at(to.y, whole.height) - at(from.y, whole.height)}});
    return !call.isError && desktop.isRight();
}

bool scrollTo(Desktop& desktop, Observations& seen, int line) {
    desktop.show("list", {{"line", line}});
    constexpr int screensOfAList = 20;
    for (int i = 0; i < screensOfAList && !desktop.lookFor(magenta); ++i)
        desktop.call("scroll", {{"x", 300}, {"y", 300}, {"direction", "down"}, {"amount", 12}});
    return click(desktop, seen, magenta) && desktop.isRight();
}

bool typeIn(Desktop& desktop, const std::string& layout, const std::string& text) {
    const auto use = [&](const std::string& name) {
        if (!desktop.useLayout(name)) return false;
        desktop.call("wait", {{"timeout", 1.1}});  // a host looks at its layout once a second
        return true;
    };
    if (!use(layout)) return false;
    desktop.show("field", {{"text", text}});
    desktop.call("type", {{"text", text}});
    const bool isRight = desktop.isRight();
    return use("us") && isRight;
}

/// "+word" is typed, all else is pressed.
bool edit(Desktop& desktop, const std::string& start, const std::vector<std::string>& strokes,
          const std::string& end) {
    desktop.show("field", {{"start", start}, {"text", end}});
    for (const std::string& stroke : strokes) {
        if (stroke[0] == '+') {
            desktop.call("type", {{"text", stroke.substr(1)}});
        } else {
            desktop.call("key", {{"combo", stroke}});
        }
    }
    return desktop.isRight();
}

bool pressShortcut(Desktop& desktop, const std::string& combo, const std::string& meant) {
    desktop.show("shortcut", {{"keys", meant}});
    desktop.call("key", {{"combo", combo}});
    return desktop.isRight();
}

bool chooseFromMenu(Desktop& desktop, Observations& seen, int menu, int item) {
    desktop.show("menu", {{"menu", menu}, {"item", item}});
    return click(desktop, seen, magenta) && click(desktop, seen, orange) && desktop.isRight();
}

bool answerDialog(Desktop& desktop, Observations& seen, const std::string& by) {
    desktop.show("dialog", {{"by", by}});
    if (!click(desktop, seen, magenta) || !desktop.find(orange)) return false;
    if (by == "click") {
        click(desktop, seen, orange);
    } else {
        desktop.call("key", {{"combo", by}});
    }
    return desktop.isRight();
}

/// On the display that is named, whatever was shown before.
bool clickOnDisplay(Desktop& desktop, Observations& seen, const std::string& name, Point place, int size) {
    const std::string list = desktop.call("list_displays").text;
    std::smatch found;
    if (!std::regex_search(list, found, std::regex("(\\d+): " + name + " "))) {
        fmt::print(stderr, "  missed: there is no display “{}”:\n{}\n", name, list);
        return false;
    }
    const int x = name == "left" ? 0 : desktop.size().width;
    desktop.place({x, 0, desktop.size().width, desktop.size().height});
    if (desktop.call("select_display", {{"id", found[1].str()}}).isError) return false;
    return clickTarget(desktop, seen, place, size);
}

class List {
public:
    template <class F>
    void add(std::string name, F perform, Place place = Place::ordinary) {
        tasks.push_back({std::move(name), place, [perform](Desktop& desktop, Observations& seen) {
                             if constexpr (std::is_invocable_v<F, Desktop&, Observations&>) {
                                 return perform(desktop, seen);
                             } else {
                                 return perform(desktop);
                             }
                         }});
    }
    std::vector<Task> tasks;
};

void addPointing(List& list) {
    int shift = 0;
    for (const Place place : {Place::ordinary, Place::small, Place::large}) {
        for (std::size_t i = 0; i < places.size(); ++i) {
            const int size = sizes[(i + static_cast<std::size_t>(shift)) % sizes.size()];
            list.add(
                fmt::format("click {} px at {}, {} %", size, at(places[i].x, 100), at(places[i].y, 100)),
                [spot = places[i], size](Desktop& d, Observations& s) {
                    return clickTarget(d, s, spot, size);
                },
                place);
        }
        shift += 2;
    }
    const Json right{{"button", "right"}}, twice{{"count", 2}};
    for (const auto& [name, options, size] :
         {std::tuple("right click", right, 16), std::tuple("double click", twice, 16),
          std::tuple("double click", twice, 8)})
        list.add(fmt::format("{} {} px", name, size),
                 [options = options, size = size](Desktop& d, Observations& s) {
                     return clickTarget(d, s, {0.3, 0.7}, size, options);
                 });
    const std::array<std::pair<Point, Point>, 8> ways{{{{0.1, 0.1}, {0.9, 0.9}},
                                                       {{0.9, 0.1}, {0.1, 0.9}},
                                                       {{0.5, 0.5}, {0.52, 0.5}},
                                                       {{0.5, 0.9}, {0.5, 0.1}},
                                                       {{0.1, 0.5}, {0.9, 0.5}},
                                                       {{0.2, 0.2}, {0.21, 0.22}},
                                                       {{0.95, 0.95}, {0.05, 0.95}},
                                                       {{0.4, 0.6}, {0.6, 0.4}}}};
    for (std::size_t i = 0; i < ways.size(); ++i) {
        const int size = sizes[1 + i % 4];
        list.add(fmt::format("drag {} px", size),
                 [way = ways[i], size](Desktop& d) { return drag(d, way.first, way.second, size); });
    }
    for (const int line : {38, 77, 151, 223, 297})
        list.add(fmt::format("scroll to line {}", line),
                 [line](Desktop& d, Observations& s) { return scrollTo(d, s, line); });
}

void addKeyboard(List& list) {
    for (const char* layout : {"us", "de", "fr", "ru"})
        for (const char* text : {"Hello, World! x^2 ~/a@b.c [y] {z} \\ | `'\" #5%",
                                 "Größe: 12 €, ¿señor? «Привет» 你好\nnext\tline"})
            list.add(fmt::format("type ({}) {}", layout, *text == 'H' ? "ASCII" : "Unicode"),
                     [layout, text](Desktop& d) { return typeIn(d, layout, text); });
    list.add("replace all", [](Desktop& d) { return edit(d, "old words", {"cmd+a", "+new"}, "new"); });
    list.add("copy and paste", [](Desktop& d) {
        return edit(d, "ab", {"cmd+a", "cmd+c", "right", "cmd+v"}, "abab");
    });
    list.add("select and delete", [](Desktop& d) {
        return edit(d, "abcd", {"shift+left", "shift+left", "delete"}, "ab");
    });
    list.add("undo", [](Desktop& d) { return edit(d, "x", {"+y", "cmd+z"}, "x"); });
    for (const auto& [combo, meant] : {std::pair("cmd+shift+s", "Ctrl+Shift+S"), std::pair("f5", "F5"),
                                       std::pair("alt+left", "Alt+Left"), std::pair("escape", "Esc")})
        list.add(fmt::format("press {}", combo),
                 [combo = combo, meant = meant](Desktop& d) { return pressShortcut(d, combo, meant); });
}

void addWindows(List& list) {
    for (const auto& [menu, item] : {std::pair(0, 0), std::pair(2, 7), std::pair(5, 3), std::pair(3, 5)})
        list.add(fmt::format("menu {}, item {}", menu, item),
                 [menu = menu, item = item](Desktop& d, Observations& s) {
                     return chooseFromMenu(d, s, menu, item);
                 });
    for (const char* by : {"click", "return", "escape", "click"})
        list.add(fmt::format("dialog by {}", by),
                 [by](Desktop& d, Observations& s) { return answerDialog(d, s, by); });
    int size = 1;
    for (const auto& [name, spot] :
         {std::pair("right", places[0]), std::pair("right", places[4]), std::pair("left", places[1]),
          std::pair("right", places[2]), std::pair("left", places[3])})
        list.add(
            fmt::format("click on the {} display", name),
            [name = name, spot = spot, pixels = sizes[static_cast<std::size_t>(size++ % 5)]](
                Desktop& d, Observations& s) { return clickOnDisplay(d, s, name, spot, pixels); },
            Place::twoDisplays);
}

}  // namespace

std::vector<Task> allTasks() {
    List list;
    addPointing(list);
    addKeyboard(list);
    addWindows(list);
    return std::move(list.tasks);
}

DesktopKind kindOf(Place place) {
    switch (place) {
        case Place::ordinary:
            return {{1440, 900}};
        case Place::small:
            return {{1280, 800}};
        case Place::large:
            return {{2560, 1440}};
        case Place::twoDisplays:
            return {{1280, 800}, 2};
    }
    return {};
}

}  // namespace velmora
