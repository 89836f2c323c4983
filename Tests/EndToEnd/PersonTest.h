#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Testing/XInputWindow.h"
#include "Tests/EndToEnd/EndToEndTest.h"
#include "Tests/EndToEnd/HomeNetworks.h"
#include "Tests/EndToEnd/Person.h"

namespace velmora {

/// A host in one network, somebody with a desktop in another, and a rendezvous service between them.
class PersonTest : public EndToEndTest {
protected:
    using Event = XInputWindow::Event;
    using Events = std::vector<Event>;

    static constexpr PixelSize hostSize{1000, 640}, personSize{1280, 800};
    static constexpr std::uint32_t red = 0xC03020, green = 0x20A040;  // what a host shows

    /// The first statement of a test. Skips it where there are no networks to be had.
    void begin();
    /// `options.home` and `options.screen` are filled in.
    void begin(Person::Options options);

    /// A program in the person's network, on the person's desktop.
    std::unique_ptr<RunningProgram> open(const std::vector<std::string>& command);
    /// A host, which is `host` then, with `hostWindow` before all else on its screen, and painted red.
    void startHostDesk();
    /// A host on the screen that `startServer` made, with a desktop around it.
    void startHostWithDesktop();
    /// The same without a desktop of its own.
    void launchHostAt(const std::string& display);

    /// The person's own Velmora, which is `application` then.
    void startApplication();
    /// By a click on the tray item.
    bool openPanel();
    /// From the panel that is open, by the host's ID.
    bool addDevice(const std::string& name, const std::string& secret);
    std::string hostDigits() const;
    /// Whether the application shows a window of this name.
    bool isOpen(const std::string& window);
    /// A viewer's, with the desktop's own keys.
    bool closeWindow(const std::string& name);

    void paint(std::uint32_t color);
    /// Person::keepPicture, with something to look at on the host's screen.
    void keepViewerPicture(const std::string& name);
    /// Waits until the person's screen shows the host's in this colour; `picture` is then where.
    bool seesPicture(std::uint32_t color);
    /// A place in the picture, in parts of its width and height.
    bool pointAt(double x, double y);
    bool clickPicture(double x, double y, const std::string& button = "1");

    /// Waits until so many of these have come to the host.
    bool hostGets(Event::Kind kind, int count, std::optional<std::uint8_t> detail = std::nullopt);
    /// The diary of a device's programs.
    std::string diaryOf(const std::string& device) const;
    bool tells(const std::string& device, const std::string& words,
               std::chrono::milliseconds limit = within(10));
    /// Its lines that complain, but for those with one of `expected` in them.
    std::vector<std::string> complaintsOf(const std::string& device,
                                          const std::vector<std::string>& expected = {}) const;

    std::optional<HomeNetworks> homes;
    std::unique_ptr<Person> person;
    std::unique_ptr<RunningProgram> service, host, application;
    std::unique_ptr<XInputWindow> hostWindow;
    PixelRect picture;

private:
    std::unique_ptr<RunningProgram> hostDesktop_;
};

}  // namespace velmora
