#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"
#include "Tests/EndToEnd/Accessibility.h"
#include "Tests/EndToEnd/Programs.h"
#include "Tests/EndToEnd/Screen.h"

namespace velmora {

/// Somebody before a screen with a desktop on it: sees the controls of programs by their names, and has a
/// hand on the pointer and two on the keyboard. Nothing is told to a program but what a screen, a pointer and
/// a keyboard can tell.
class Person {
public:
    /// `home` holds the folders of the programs that this person starts.
    struct Options {
        std::filesystem::path home;
        PixelSize screen{1280, 800};
        std::vector<std::string> windowManager{"openbox"};
        XServerFixture::Kind server = XServerFixture::Kind::xvfb;
    };
    explicit Person(const Options& options);

    /// Why there is no screen; empty: there is one.
    const std::string& error() const { return server_.error(); }
    XTestClient& screen() { return screen_; }
    const std::string& display() const { return server_.display(); }

    /// A program of this person's, whose controls can be seen. `command` as it is to be run; `rendezvous` as
    /// in RunningProgram::Place.
    std::unique_ptr<RunningProgram> start(const std::vector<std::string>& command,
                                          const std::string& rendezvous = RunningProgram::Place().rendezvous);

    // What is seen

    std::vector<Control> look(const RunningProgram& program) { return eyes_.controlsOf(program.pid()); }
    /// The first control on the screen with this role and name; waits for it.
    std::optional<Control> find(const RunningProgram& program, const std::string& role,
                                const std::string& name, std::chrono::milliseconds limit = within(10));
    bool sees(const RunningProgram& program, const std::string& role, const std::string& name,
              std::chrono::milliseconds limit = within(10)) {
        return find(program, role, name, limit).has_value();
    }
    /// The same, and the control is as `condition` has it.
    bool sees(const RunningProgram& program, const std::string& role, const std::string& name,
              const std::function<bool(const Control&)>& condition);
    bool seesNoMore(const RunningProgram& program, const std::string& role, const std::string& name);
    /// All that is on the screen, to tell what went wrong.
    std::string describe(const RunningProgram& program);
    /// Of the controls that can have the keyboard, those that would not say what they are.
    std::vector<std::string> namelessControls(const RunningProgram& program);
    std::optional<ScreenImage> screenshot();
    /// Where the desktop's tray shows an item of this name; waits for it.
    std::optional<PixelRect> trayItem(const std::string& name);
    /// Keeps what is on the screen as NAME.png in the folder that VELMORA_PICTURES names, if it does.
    void keepPicture(const std::string& name);

    // What is done; false, with a failure of the test, if it cannot be

    /// Clicks the middle of a control, when it is there and enabled.
    bool press(const RunningProgram& program, const std::string& role, const std::string& name);
    bool clickAt(int x, int y, const std::string& button = "1");
    bool moveTo(int x, int y);
    /// Keys by their names: "ctrl+v".
    bool keys(const std::vector<std::string>& names);
    bool type(const std::string& text);
    /// Puts text into a field, in place of what it holds.
    bool fill(const RunningProgram& program, const std::string& name, const std::string& text);
    /// Arguments of xdotool.
    bool use(std::vector<std::string> what);

private:
    const Options options_;
    XServerFixture server_;
    XTestClient screen_;
    Accessibility eyes_;
    std::unique_ptr<RunningProgram> windowManager_;
};

}  // namespace velmora
