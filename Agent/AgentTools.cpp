#include "Agent/AgentTools.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "Agent/KeyNames.h"
#include "Agent/ToolCatalogue.h"
#include "Shared/Characters.h"
#include "VelmoraKit/Core/Utf8.h"
#include "Viewer/Session/InputGestures.h"

namespace velmora {

namespace {

using Json = nlohmann::json;
using std::chrono::duration_cast;
using Seconds = std::chrono::duration<double>;

constexpr double pixelsPerWheelClick = 50;
constexpr double mostWheelClicks = 10'000;  // more than any page; keeps the pixels a sane number
constexpr int mostClicks = 10;              // no click count above means anything

struct Spot {
    double x = 0, y = 0;
};

std::optional<double> numberIn(const Json& object, const char* key) {
    const auto member = object.find(key);
    if (member == object.end() || !member->is_number()) return std::nullopt;
    return member->get<double>();
}

std::optional<std::string> stringIn(const Json& object, const char* key) {
    const auto member = object.find(key);
    if (member == object.end() || !member->is_string()) return std::nullopt;
    return member->get<std::string>();
}

std::optional<std::string> filledStringIn(const Json& object, const char* key) {
    auto text = stringIn(object, key);
    return text && !text->empty() ? text : std::nullopt;
}

std::optional<Spot> spotIn(const Json& object, const char* x = "x", const char* y = "y") {
    const auto across = numberIn(object, x), down = numberIn(object, y);
    if (!across || !down) return std::nullopt;
    return Spot{*across, *down};
}

/// Truncated toward zero, as all numbers in answers.
std::string whole(double value) {
    return fmt::format("{:.0f}", std::trunc(value) + 0.0);  // the sum makes -0 a 0
}

InputGestures::Point pointOf(const Spot& spot, PixelSize shot) {
    return InputGestures::pointAt(spot.x, spot.y, shot.width, shot.height);
}

/// Six digits; one that came as a number has lost its leading zeros.
std::optional<std::string> passwordIn(const Json& arguments) {
    if (const auto number = numberIn(arguments, "password"))
        return fmt::format("{:06.0f}", std::trunc(*number));
    return stringIn(arguments, "password");
}

bool hasNineDigits(std::string_view text) {
    return std::ranges::count_if(text, [](char c) { return c >= '0' && c <= '9'; }) == 9;
}

InputGestures::Button buttonIn(const Json& arguments) {
    const auto name = stringIn(arguments, "button");
    if (name == "right") return InputGestures::Button::right;
    if (name == "middle") return InputGestures::Button::middle;
    return InputGestures::Button::left;
}

/// None: no region was asked for. A failure: it is none.
Result<std::optional<ShotGeometry::Region>> regionIn(const Json& arguments) {
    const auto region = arguments.find("region");
    if (region == arguments.end() || !region->is_object()) return std::optional<ShotGeometry::Region>();
    const auto corner = spotIn(*region), extent = spotIn(*region, "width", "height");
    if (!corner || !extent || extent->x <= 0 || extent->y <= 0)
        return Failure{"region needs x, y, width and height"};
    return std::optional(ShotGeometry::Region{corner->x, corner->y, extent->x, extent->y});
}

/// A display's number, however it is written.
std::optional<std::uint32_t> displayOf(std::string_view text) {
    std::uint32_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return id;
}

HostClock::duration durationOf(double seconds) {
    return duration_cast<HostClock::duration>(Seconds(seconds));
}

}  // namespace

AgentTools::AgentTools(RemoteMac& mac, Queue& main, const Parameters& parameters)
    : mac_(mac), main_(main), parameters_(parameters) {}

const nlohmann::ordered_json& AgentTools::catalogue() const {
    return toolCatalogue();
}

const std::vector<AgentTools::Entry>& AgentTools::entries() {
    static const std::vector<Entry> all{
        {"list_devices", &AgentTools::listDevices, false},
        {"connect", &AgentTools::connect, false},  // once it knows to whom, it waits itself
        {"disconnect", &AgentTools::disconnectMac, false},
        {"status", &AgentTools::status, false},
        {"screenshot", &AgentTools::screenshot},
        {"wait", &AgentTools::wait},
        {"click", &AgentTools::click},
        {"move", &AgentTools::move},
        {"drag", &AgentTools::drag},
        {"scroll", &AgentTools::scroll},
        {"type", &AgentTools::type},
        {"key", &AgentTools::key},
        {"open", &AgentTools::open},
        {"get_clipboard", &AgentTools::getClipboard},
        {"set_clipboard", &AgentTools::setClipboard},
        {"list_displays", &AgentTools::listDisplays},
        {"select_display", &AgentTools::selectDisplay},
    };
    return all;
}

void AgentTools::call(const std::string& name, const Arguments& arguments, Done done) {
    assertOn(main_);
    const auto found =
        std::ranges::find_if(entries(), [&](const Entry& entry) { return entry.name == name; });
    if (found != entries().end() && !found->needsPicture)
        return (this->*found->tool)(arguments, std::move(done));
    // A name that is no tool is told only then: everything but the few above goes through the one gate.
    whenStreaming(std::move(done), [this, name, arguments, found](Done finish) {
        if (found == entries().end()) return finish(ToolAnswer::failure("Unknown tool " + name));
        (this->*found->tool)(arguments, std::move(finish));
    });
}

void AgentTools::whenStreaming(Done done, UniqueFunction<void(Done)> run) {
    mac_.ensureStreaming(
        parameters_.connectLimit,
        liveness_.guard([done = std::move(done), run = std::move(run)](const Status& status) mutable {
            if (!status) return done(ToolAnswer::failure(status.error().text));
            run(std::move(done));
        }));
}

void AgentTools::after(std::chrono::milliseconds delay, Queue::Block block) {
    std::erase_if(timers_, [](const TimerToken& timer) { return !timer; });
    timers_.push_back(main_.after(delay, std::move(block)));
}

void AgentTools::acted(std::string summary, Done done) {
    after(parameters_.actingTime, [summary = std::move(summary), done = std::move(done)]() mutable {
        done(ToolAnswer::words(std::move(summary)));
    });
}

void AgentTools::answerWithScreen(std::string words, Done done) {
    mac_.takeShot(std::nullopt,
                  [words = std::move(words), done = std::move(done)](std::optional<Shot> shot) mutable {
                      if (!shot) return done(ToolAnswer::failure("No picture"));
                      done({{ToolContent::picture(ToolContent::Kind::jpeg, std::move(shot->jpeg)),
                             ToolContent::words(std::move(words))}});
                  });
}

// MARK: the connection

void AgentTools::listDevices(const Arguments&, Done done) {
    const auto lines = mac_.deviceLines();
    done(ToolAnswer::words(
        lines.empty() ? "No Macs found on this network and none saved. Use connect with host_id and password."
                      : fmt::format("{}", fmt::join(lines, "\n"))));
}

void AgentTools::connect(const Arguments& arguments, Done done) {
    const auto device = filledStringIn(arguments, "device");
    const auto hostID = filledStringIn(arguments, "host_id");
    if (!device && !hostID)
        return done(ToolAnswer::failure("Pass device (name or Host ID) or host_id and password"));
    RemoteMac::Selection selection{.name = device ? *device : *hostID, .password = passwordIn(arguments)};
    if (selection.password) {
        if (hostID) {
            selection.hostID = hostID;
        } else if (hasNineDigits(selection.name)) {
            selection.hostID = selection.name;
        } else {
            selection.hostID = mac_.hostIDOf(selection.name);
        }
    }
    mac_.select(selection);
    whenStreaming(std::move(done), [this](Done finish) { finish(ToolAnswer::words(mac_.statusText())); });
}

void AgentTools::disconnectMac(const Arguments&, Done done) {
    const bool wasConnected = mac_.hasConnection();
    mac_.disconnect();
    done(ToolAnswer::words(wasConnected ? "Disconnected from " + mac_.deviceName().value_or("the Mac")
                                        : "Wasn't connected"));
}

void AgentTools::status(const Arguments&, Done done) {
    done(ToolAnswer::words(mac_.statusText()));
}

// MARK: looking

void AgentTools::screenshot(const Arguments& arguments, Done done) {
    const auto asked = regionIn(arguments);
    if (!asked) return done(ToolAnswer::failure(asked.error().text));
    auto answer = [region = *asked, done = std::move(done)](std::optional<Shot> shot) mutable {
        if (!shot)
            return done(ToolAnswer::failure("No picture yet (or the region is off screen); try again"));
        auto words = region ? fmt::format("Close-up of {},{} {}×{}; click with full-screenshot coordinates",
                                          whole(region->x), whole(region->y), whole(region->width),
                                          whole(region->height))
                            : fmt::format("{}×{} px", shot->size.width, shot->size.height);
        done({{ToolContent::picture(ToolContent::Kind::jpeg, std::move(shot->jpeg)),
               ToolContent::words(std::move(words))}});
    };
    after(parameters_.arrivalTime, [this, region = *asked, answer = std::move(answer)]() mutable {
        mac_.takeShot(region, std::move(answer));
    });
}

void AgentTools::wait(const Arguments& arguments, Done done) {
    const double limit = std::clamp(numberIn(arguments, "timeout").value_or(10), 0.5, 60.0);
    mac_.waitForChange({.limit = durationOf(limit), .settle = std::chrono::milliseconds(400)},
                       liveness_.guard([this, limit, done = std::move(done)](bool hasChanged) mutable {
                           answerWithScreen(
                               hasChanged ? "The screen changed" : "No change within " + whole(limit) + " s",
                               std::move(done));
                       }));
}

// MARK: the pointer

void AgentTools::click(const Arguments& arguments, Done done) {
    const auto spot = spotIn(arguments);
    if (!spot) return done(ToolAnswer::failure("Missing x or y"));
    const double count = std::clamp<double>(numberIn(arguments, "count").value_or(1), 1, mostClicks);
    mac_.send(
        InputGestures::click(pointOf(*spot, mac_.shotSize()), buttonIn(arguments), static_cast<int>(count)));
    acted(fmt::format("Clicked at {}, {}", whole(spot->x), whole(spot->y)), std::move(done));
}

void AgentTools::move(const Arguments& arguments, Done done) {
    const auto spot = spotIn(arguments);
    if (!spot) return done(ToolAnswer::failure("Missing x or y"));
    mac_.send(InputGestures::moveTo(pointOf(*spot, mac_.shotSize())));
    acted(fmt::format("Moved to {}, {}", whole(spot->x), whole(spot->y)), std::move(done));
}

void AgentTools::drag(const Arguments& arguments, Done done) {
    const auto from = spotIn(arguments), to = spotIn(arguments, "to_x", "to_y");
    if (!from || !to) return done(ToolAnswer::failure("Missing coordinates"));
    // Stepped in pixels: a part of the way that is off the screen takes its share of the steps.
    std::vector<InputGestures::Point> way;
    for (int i = 0; i <= InputGestures::dragSteps; ++i) {
        const double part = double{1} * i / InputGestures::dragSteps;
        way.push_back(pointOf({from->x + (to->x - from->x) * part, from->y + (to->y - from->y) * part},
                              mac_.shotSize()));
    }
    mac_.send(InputGestures::dragAlong(way));
    acted(fmt::format("Dragged to {}, {}", whole(to->x), whole(to->y)), std::move(done));
}

void AgentTools::scroll(const Arguments& arguments, Done done) {
    const auto spot = spotIn(arguments);
    if (!spot) return done(ToolAnswer::failure("Missing x or y"));
    const double clicks = std::trunc(numberIn(arguments, "amount").value_or(3));
    const double distance = std::clamp(clicks, -mostWheelClicks, mostWheelClicks) * pixelsPerWheelClick;
    const auto direction = stringIn(arguments, "direction");
    double dx = 0, dy = 0;
    if (direction == "up") {
        dy = distance;
    } else if (direction == "down") {
        dy = -distance;
    } else if (direction == "left") {
        dx = distance;
    } else if (direction == "right") {
        dx = -distance;
    } else {
        return done(ToolAnswer::failure("direction must be up, down, left or right"));
    }
    mac_.send(InputGestures::scroll(pointOf(*spot, mac_.shotSize()), dx, dy));
    acted("Scrolled", std::move(done));
}

// MARK: the keyboard

void AgentTools::type(const Arguments& arguments, Done done) {
    const auto text = stringIn(arguments, "text");
    if (!text) return done(ToolAnswer::failure("Missing text"));
    mac_.send(InputGestures::type(*text));
    acted(fmt::format("Typed {} characters", userPerceivedCharacters(*text).size()), std::move(done));
}

void AgentTools::key(const Arguments& arguments, Done done) {
    const auto text = stringIn(arguments, "combo");
    const auto combo = text ? KeyNames::parse(*text) : std::nullopt;
    if (!combo)
        return done(
            ToolAnswer::failure("Unknown key. Use names like return, tab, escape, space, delete, left, "
                                "f5, a–z, 0–9 with cmd/ctrl/alt/shift+"));
    mac_.send(InputGestures::press(combo->keyCode, combo->characters, combo->flags));
    acted("Pressed " + *text, std::move(done));
}

void AgentTools::open(const Arguments& arguments, Done done) {
    auto target = filledStringIn(arguments, "target");
    if (!target) return done(ToolAnswer::failure("Missing target"));
    if (const auto combo = KeyNames::parse("cmd+space"))
        mac_.send(InputGestures::press(combo->keyCode, combo->characters, combo->flags));

    auto answer = liveness_.guard([this, target = *target, done = std::move(done)](bool) mutable {
        answerWithScreen(fmt::format("Opened {} through Spotlight", target), std::move(done));
    });
    auto confirm = [this, answer = std::move(answer)]() mutable {
        mac_.send(InputGestures::type("\n"));
        using namespace std::chrono_literals;
        mac_.waitForChange({.limit = 8s, .settle = 800ms}, std::move(answer));
    };
    after(parameters_.launcherAppears, [this, target = *target, confirm = std::move(confirm)]() mutable {
        mac_.send(InputGestures::type(target));
        after(parameters_.launcherSearches, std::move(confirm));
    });
}

// MARK: clipboard and displays

void AgentTools::getClipboard(const Arguments&, Done done) {
    const auto& clipboard = mac_.remoteClipboard();
    if (!clipboard) {
        return done(
            ToolAnswer::words("Nothing copied on the remote Mac yet in this session. Select something "
                              "there and press cmd+c first."));
    }
    switch (clipboard->kind) {
        case ClipboardContent::Kind::text:
            return done(ToolAnswer::words(repairedUtf8(clipboard->data)));
        case ClipboardContent::Kind::png:
            return done({{ToolContent::picture(ToolContent::Kind::png, clipboard->data)}});
        case ClipboardContent::Kind::files:
            return done(ToolAnswer::words("The remote clipboard holds files (not readable as text)."));
    }
}

void AgentTools::setClipboard(const Arguments& arguments, Done done) {
    const auto text = stringIn(arguments, "text");
    if (!text) return done(ToolAnswer::failure("Missing text"));
    mac_.setRemoteClipboard(*text);
    acted(fmt::format("The remote clipboard holds {} characters; press cmd+v there to paste",
                      userPerceivedCharacters(*text).size()),
          std::move(done));
}

void AgentTools::listDisplays(const Arguments&, Done done) {
    const auto& list = mac_.displayList();
    if (!list) return done(ToolAnswer::words("The remote Mac hasn't sent its displays yet; try again"));
    const auto mark = [](bool isCurrent) { return isCurrent ? " (current)" : ""; };
    std::vector<std::string> lines;
    if (list->virtualAvailable) {
        lines.push_back(std::string("virtual: a virtual display the size Velmora mcp uses") +
                        mark(!list->currentID));
    }
    for (const ServerDisplay& display : list->displays) {
        lines.push_back(fmt::format("{}: {} {}×{}{}", display.id, display.name, display.width, display.height,
                                    mark(display.id == list->currentID)));
    }
    done(ToolAnswer::words(fmt::format("{}", fmt::join(lines, "\n"))));
}

void AgentTools::selectDisplay(const Arguments& arguments, Done done) {
    auto name = stringIn(arguments, "id").value_or("");
    if (const auto number = numberIn(arguments, "id"); number && std::trunc(*number) == *number)
        name = whole(*number);
    const auto id = displayOf(name);
    if (!id && name != "virtual") {
        return done(ToolAnswer::failure(R"(id must be a display id from list_displays or "virtual")"));
    }
    mac_.selectDisplay(id);
    using namespace std::chrono_literals;
    mac_.waitForChange(
        {.limit = 5s, .settle = 400ms}, liveness_.guard([this, name, done = std::move(done)](bool) mutable {
            answerWithScreen(fmt::format("Showing display {}; coordinates now refer to it", name),
                             std::move(done));
        }));
}

}  // namespace velmora
