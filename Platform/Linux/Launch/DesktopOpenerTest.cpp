#include "Platform/Linux/Launch/DesktopOpener.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "Testing/ScratchFolder.h"

namespace velmora {
namespace {

/// A system with three applications, each of which writes down how it was started.
class Desktop : public testing::Environment {
public:
    void SetUp() override {  // before the first look: what the environment says is remembered
        const std::string home = folder_.path();
        std::filesystem::create_directories(folder_ / "data/applications");
        write("told",
              "#!/bin/sh\n{ printf '%s|' \"$@\"; echo; echo \"secret=$VELMORA_SECRET\"; "
              "grep SigBlk /proc/self/status; readlink /proc/self/fd/1; } >" +
                  home + "/told.new 2>/dev/null; mv " + home + "/told.new " + home + "/told.txt\n");
        chmod((folder_ / "told").c_str(), 0755);
        entry("org.example.Writer", "Name=Paper Writer\nGenericName=Text Editor\nMimeType=text/plain;",
              "writer %i --title %c %f \"a b\" 100%%");
        entry("browser", "Name=Window\nMimeType=x-scheme-handler/https;", "browser %u");
        entry("hidden", "Name=Paper\nNoDisplay=true", "hidden");
        write("data/applications/mimeapps.list",
              "[Default Applications]\ntext/plain=org.example.Writer.desktop\n"
              "x-scheme-handler/https=browser.desktop\n");
        write("notes.txt", "some text\n");
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_DATA_HOME", (folder_ / "data").c_str(), 1);
        setenv("XDG_DATA_DIRS", (folder_ / "none").c_str(), 1);  // not this machine's applications
        setenv("XDG_CONFIG_HOME", (folder_ / "config").c_str(), 1);
        setenv("VELMORA_SECRET", "ours", 1);
    }
    void write(const std::string& name, const std::string& content) const {
        std::ofstream(folder_ / name, std::ios::binary) << content;
    }
    std::filesystem::path path(const std::string& name) const { return folder_ / name; }

private:
    void entry(const std::string& id, const std::string& lines, const std::string& command) const {
        write("data/applications/" + id + ".desktop",
              fmt::format("[Desktop Entry]\nType=Application\nIcon=pen\n{}\nExec={}/told {}\n", lines,
                          folder_.path().string(), command));
    }
    ScratchFolder folder_;
};
const auto* const desktop =
    static_cast<Desktop*>(testing::AddGlobalTestEnvironment(new Desktop));  // NOLINT: gtest owns it

/// What the application that was started has written down.
std::string toldBy(const std::string& target) {
    const auto file = desktop->path("told.txt");
    std::filesystem::remove(file);
    const auto opened = DesktopOpener::open(target);
    if (!opened) return "⚠︎ " + opened.error().text;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!std::filesystem::exists(file) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // between two looks
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

TEST(DesktopOpenerTest, namesPathsAndAddressesFindTheirApplications) {
    const std::string notes = desktop->path("notes.txt");
    const std::string writer = "writer|--icon|pen|--title|Paper Writer|";
    const struct {
        std::string target, first;
    } cases[] = {
        {"paper writer", writer + "a b|100%|"},  // its name, in any case
        {" Writer ", writer + "a b|100%|"},      // the end of its identifier
        {"Text Editor", writer + "a b|100%|"},   // what it is
        {"Pap", writer + "a b|100%|"},           // how it begins; the hidden one is not meant
        {"Paper", writer + "a b|100%|"},         //
        {"~/notes.txt", writer + notes + "|a b|100%|"},
        {notes, writer + notes + "|a b|100%|"},
        {"notes.txt", writer + notes + "|a b|100%|"},
        {"file://" + notes, writer + notes + "|a b|100%|"},
        {"https://example.org/?a=1&b=$(id)", "browser|https://example.org/?a=1&b=$(id)|"},
        {"example.org", "browser|https://example.org|"},
        {"localhost:3000/x", "browser|https://localhost:3000/x|"},
    };
    for (const auto& c : cases) {
        const std::string told = toldBy(c.target);
        EXPECT_EQ(told.substr(0, told.find('\n')), c.first) << c.target;
    }
}

TEST(DesktopOpenerTest, whatCannotBeOpenedIsSaidInWords) {
    EXPECT_EQ(toldBy("Sorcery"), "⚠︎ Nothing here is called “Sorcery”");
    EXPECT_EQ(toldBy("/no/such"), "⚠︎ There is nothing at /no/such");
    EXPECT_EQ(toldBy("odd://x"), "⚠︎ No application opens “odd:” addresses");
    EXPECT_EQ(toldBy("  "), "⚠︎ Nothing was written");
}

TEST(DesktopOpenerTest, whatIsStartedHasNothingOfOurs) {
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    const std::string told = toldBy("Window");
    sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_NE(told.find("secret=\n"), std::string::npos) << told;
    EXPECT_NE(told.find("SigBlk:\t0000000000000000\n"), std::string::npos) << told;
}

}  // namespace
}  // namespace velmora
