#include "Tests/EndToEnd/PersonTest.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace velmora {

void PersonTest::begin() {
    begin({.windowManager = {"icewm"}});
}

void PersonTest::begin(Person::Options options) {
    homes.emplace(HomeNetworks::Options{.oneHome = true});
    if (!homes->areAllowed()) GTEST_SKIP() << "network namespaces need root: " << homes->error();
    ASSERT_EQ(homes->error(), "");
    const std::string address = HomeNetworks::serverAddress;
    rendezvous = fmt::format("ws://{}:8080", address);
    service = std::make_unique<RunningProgram>(
        homes->at(HomeNetworks::Place::server, {RENDEZVOUS_PROGRAM, "--plain", "--listen", address + ":8080",
                                                "--public-address", address}),
        RunningProgram::Place{.home = homeOf("service")});
    options.home = homeOf("person");
    options.screen = personSize;
    if (const char* const theme = std::getenv("VELMORA_PICTURES_THEME")) {
        std::filesystem::create_directories(options.home / "config/velmora");
        std::ofstream(options.home / "config/velmora/preferences.json")
            << fmt::format(R"({{"appTheme": "{}"}})", theme);
    }
    person = std::make_unique<Person>(options);
    ASSERT_EQ(person->error(), "");
}

std::unique_ptr<RunningProgram> PersonTest::open(const std::vector<std::string>& command) {
    return person->start(homes->at(HomeNetworks::Place::viewer, command), rendezvous);
}

void PersonTest::startHostDesk() {
    ASSERT_NO_FATAL_FAILURE(startServer(XServerFixture::Kind::xvfb, hostSize));
    ASSERT_NO_FATAL_FAILURE(startHostWithDesktop());
    hostWindow = std::make_unique<XInputWindow>(server().display());
    ASSERT_TRUE(hostWindow->ok());
    paint(red);
}

void PersonTest::startHostWithDesktop() {
    hostDesktop_ = startOnScreen({"icewm"});  // whose tray takes the host's item
    ASSERT_TRUE(eventually([this] { return screen().hasWindowManager(); }));
    launchHostAt(server().display());
}

void PersonTest::launchHostAt(const std::string& display) {
    host = std::make_unique<RunningProgram>(
        homes->at(HomeNetworks::Place::host, {VELMORA_PROGRAM}),
        RunningProgram::Place{.home = homeOf("host"), .display = display, .rendezvous = rendezvous});
    ASSERT_TRUE(host->says("waiting for a viewer", 1, within(20))) << host->said();
    readHostLine(*host);
    ASSERT_TRUE(tells("host", "Online at", within(20))) << host->said() << service->said();
}

void PersonTest::startApplication() {
    application = open({VELMORA_PROGRAM});
    ASSERT_TRUE(tells("person", "Online at", within(20))) << application->said() << diaryOf("person");
    ASSERT_TRUE(person->trayItem("Velmora")) << application->said();
}

/// Again if nothing comes: soon after another click it counts as the second half of a double one.
bool PersonTest::openPanel() {
    const auto item = person->trayItem("Velmora");
    return item && eventually([&] {
               return person->clickAt(item->x + item->width / 2, item->y + item->height / 2) &&
                      person->sees(*application, "push button", "Add new device", within(0.5));
           });
}

bool PersonTest::addDevice(const std::string& name, const std::string& secret) {
    return person->press(*application, "push button", "Add new device") &&
           person->fill(*application, "Name", name) && person->fill(*application, "Host ID", hostDigits()) &&
           person->fill(*application, "Password", secret) &&
           person->press(*application, "push button", "Add and Connect");
}

bool PersonTest::isOpen(const std::string& window) {
    return std::ranges::any_of(person->look(*application), [&](const Control& control) {
        return control.isShowing && control.window == window;
    });
}

/// Off the picture keys are for this desktop, but only from when the window has seen the pointer go.
bool PersonTest::closeWindow(const std::string& name) {
    return eventually([&] {
        if (!isOpen(name)) return true;
        return person->moveTo(picture.x + picture.width / 2, picture.y - 24) && person->keys({"alt+F4"}) &&
               eventually([&] { return !isOpen(name); }, within(1));
    });
}

std::string PersonTest::hostDigits() const {
    std::string digits = hostId();
    std::erase(digits, ' ');
    return digits;
}

void PersonTest::keepViewerPicture(const std::string& name) {
    if (!std::getenv("VELMORA_PICTURES")) return;
    show(screen(), desktopImage(hostSize));
    person->keepPicture(name);
    paint(red);
    ASSERT_TRUE(seesPicture(red));
}

void PersonTest::paint(std::uint32_t color) {
    auto* const c = hostWindow->connection();
    const xcb_gcontext_t pen = xcb_generate_id(c);
    xcb_create_gc(c, pen, hostWindow->window(), XCB_GC_FOREGROUND, &color);
    const xcb_rectangle_t all{0, 0, hostSize.width, hostSize.height};
    xcb_poly_fill_rectangle(c, hostWindow->window(), pen, 1, &all);
    xcb_free_gc(c, pen);
    xcb_flush(c);
}

bool PersonTest::seesPicture(std::uint32_t color) {
    constexpr int least = 300;  // of its width: smaller is a speck of something else
    return eventually(
        [&] {
            const auto image = person->screenshot();
            if (!image) return false;
            picture = whereIs(color, *image);
            return picture.width > least;
        },
        within(20));
}

bool PersonTest::pointAt(double x, double y) {
    return person->moveTo(picture.x + static_cast<int>(x * picture.width),
                          picture.y + static_cast<int>(y * picture.height));
}

bool PersonTest::clickPicture(double x, double y, const std::string& button) {
    return pointAt(x, y) && person->use({"click", button});
}

bool PersonTest::hostGets(Event::Kind kind, int count, std::optional<std::uint8_t> detail) {
    return hostWindow->waitUntil([&](const Events& events) {
        return std::ranges::count_if(events, [&](const Event& event) {
                   return event.kind == kind && (!detail || event.detail == *detail);
               }) >= count;
    });
}

std::string PersonTest::diaryOf(const std::string& device) const {
    return contentOf(homeOf(device) / "state/velmora/velmora.log");
}

bool PersonTest::tells(const std::string& device, const std::string& words, std::chrono::milliseconds limit) {
    return eventually([&] { return diaryOf(device).find(words) != std::string::npos; }, limit);
}

std::vector<std::string> PersonTest::complaintsOf(const std::string& device,
                                                  const std::vector<std::string>& expected) const {
    std::vector<std::string> complaints;
    std::istringstream diary(diaryOf(device));
    for (std::string line; std::getline(diary, line);) {
        const auto has = [&](const std::string& words) { return line.find(words) != std::string::npos; };
        if (has("⚠︎") && std::ranges::none_of(expected, has)) complaints.push_back(line);
    }
    return complaints;
}

}  // namespace velmora
