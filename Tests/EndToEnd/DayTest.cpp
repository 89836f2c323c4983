#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>

#include "Tests/EndToEnd/PersonTest.h"
#include "Tests/EndToEnd/ProcessFigures.h"

namespace velmora {
namespace {

using Kind = XInputWindow::Event::Kind;

std::chrono::seconds lengthOfTheDay() {
    const char* text = std::getenv("VELMORA_DAY_SECONDS");  // ./test --soak
    return std::chrono::seconds(text ? std::atoi(text) : 90);
}

/// What was seen of a program after each round.
struct Track {
    const char* name;
    std::vector<ProcessFigures> rounds{};

    void add(const RunningProgram& program) {
        rounds.push_back(ProcessFigures::of(program.pid()));
        const ProcessFigures& now = rounds.back();
        std::cout << fmt::format("  {}: {} KiB, {} threads, {} descriptors", name, now.residentKiB,
                                 now.threads, now.descriptors);
    }
    /// In the middle of all rounds: a heap that grows once by a lot has not leaked.
    double kibARound() const {
        std::vector<double> steps;
        for (std::size_t i = 1; i < rounds.size(); ++i)
            steps.push_back(static_cast<double>(rounds[i].residentKiB) -
                            static_cast<double>(rounds[i - 1].residentKiB));
        std::ranges::nth_element(steps, steps.begin() + static_cast<std::ptrdiff_t>(steps.size() / 2));
        return steps[steps.size() / 2];
    }
    void expectFlat() const {
        constexpr double mostARound = 32;         // KiB; the diary alone grows by some
        constexpr std::size_t mostInAll = 16384;  // KiB
        ASSERT_GT(rounds.size(), 3U);
        EXPECT_LE(rounds.back().threads, rounds.front().threads) << name;  // idle ones of pools end
        EXPECT_LE(rounds.back().descriptors, rounds.front().descriptors + 2)
            << name;                              // of a clipboard's moment
        if (std::getenv("ASAN_OPTIONS")) return;  // the sanitizer holds on to what has been freed
        EXPECT_LE(kibARound(), mostARound) << name;
        EXPECT_LE(rounds.back().residentKiB, rounds.front().residentKiB + mostInAll) << name;
    }
};

/// Somebody works on a host through a window, at speed, and does what people do in a day.
class Day : public PersonTest {
protected:
    void work(int round) {
        const std::uint32_t color = round % 2 == 0 ? red : green;
        paint(color);
        ASSERT_TRUE(seesPicture(color)) << "round " << round;
        hostWindow->take();
        ASSERT_NO_FATAL_FAILURE(writeAndPoint());
        ASSERT_NO_FATAL_FAILURE(copyAndPaste(round));
        ASSERT_NO_FATAL_FAILURE(zoomAndScroll());
        ASSERT_NO_FATAL_FAILURE(moveTheWindow(color));
        ASSERT_NO_FATAL_FAILURE(leaveAndComeBack());
        EXPECT_FALSE(hostWindow->isAnythingDown()) << "round " << round;
    }

    void writeAndPoint() {
        ASSERT_TRUE(clickPicture(0.5, 0.5));
        ASSERT_TRUE(hostGets(Kind::buttonUp, 1, 1));
        ASSERT_TRUE(person->use({"type", "--delay", "4", "The quick brown Fox jumps over 13 lazy dogs."}));
        ASSERT_TRUE(hostGets(Kind::keyUp, 44));
        ASSERT_TRUE(person->use({"click", "--repeat", "2", "--delay", "60", "1"}));
        ASSERT_TRUE(clickPicture(0.3, 0.6, "3"));
        ASSERT_TRUE(hostGets(Kind::buttonUp, 1, 3));
        ASSERT_TRUE(person->use({"mousedown", "1"}));
        for (int i = 0; i < 8; ++i) ASSERT_TRUE(pointAt(0.3 + 0.05 * i, 0.6 - 0.05 * i));
        ASSERT_TRUE(person->use({"mouseup", "1"}));
        ASSERT_TRUE(hostGets(Kind::buttonUp, 4, 1));
    }

    void copyAndPaste(int round) {
        const std::string there = fmt::format("from here, {}", round),
                          back = fmt::format("from there, {}", round);
        const auto copy = [](auto start, const std::string& text) {
            return start({"sh", "-c", fmt::format("printf '{}' | xclip -selection clipboard -i", text)});
        };
        const auto holds = [](auto start, const std::string& text) {
            return eventually([&] {
                const auto paste = start({"timeout", "1", "xclip", "-selection", "clipboard", "-o"});
                paste->end();
                return paste->said() == text;
            });
        };
        using Command = std::vector<std::string>;
        const auto here = [this](const Command& command) { return person->start(command); };
        const auto atHost = [this](const Command& command) { return startOnScreen(command); };
        const auto first = copy(here, there);
        ASSERT_TRUE(holds(atHost, there)) << "round " << round;
        const auto second = copy(atHost, back);
        ASSERT_TRUE(holds(here, back)) << "round " << round;
    }

    void zoomAndScroll() {
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(person->press(*application, "push button", "Zoom in"));
        ASSERT_TRUE(pointAt(0.2, 0.8) && pointAt(0.8, 0.3));
        ASSERT_TRUE(person->use({"click", "--repeat", "5", "--delay", "10", "4"}));
        ASSERT_TRUE(hostGets(Kind::buttonUp, 5, 4));
        ASSERT_TRUE(person->use({"click", "--repeat", "5", "--delay", "10", "5"}));
        ASSERT_TRUE(hostGets(Kind::buttonUp, 5, 5));
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(person->press(*application, "push button", "Zoom out"));
    }

    void moveTheWindow(std::uint32_t color) {
        ASSERT_TRUE(person->press(*application, "push button", "Full Screen"));
        ASSERT_TRUE(
            eventually([&] { return seesPicture(color) && picture.height >= personSize.height - 2; }));
        ASSERT_TRUE(pointAt(0.5, 0.0));
        ASSERT_TRUE(person->press(*application, "push button", "Full Screen"));
        ASSERT_TRUE(eventually([&] { return seesPicture(color) && picture.height < personSize.height - 2; }));
        for (const auto& [width, height] : {std::pair{"820", "600"}, {"1000", "688"}}) {
            ASSERT_TRUE(
                person->use({"search", "--onlyvisible", "--name", "^Desk$", "windowsize", width, height}));
            ASSERT_TRUE(eventually(
                [&] { return seesPicture(color) && std::abs(picture.width - std::atoi(width)) < 60; }));
        }
    }

    /// With a key and a button held, as it happens.
    void leaveAndComeBack() {
        ASSERT_TRUE(clickPicture(0.4, 0.4));
        hostWindow->take();
        ASSERT_TRUE(person->use({"keydown", "shift", "keydown", "k"}));
        ASSERT_TRUE(hostGets(Kind::keyDown, 2));
        const auto other = person->start({"xterm", "-geometry", "30x6+0+0"});
        ASSERT_TRUE(person->use({"search", "--sync", "--onlyvisible", "--class", "xterm", "windowactivate"}));
        EXPECT_FALSE(hostWindow->isAnythingDown());
        ASSERT_TRUE(person->use({"keyup", "k", "keyup", "shift"}));
    }
};

TEST_F(Day, leavesNothingBehind) {
    begin();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_NO_FATAL_FAILURE(startHostDesk());
    ASSERT_NO_FATAL_FAILURE(startApplication());
    ASSERT_TRUE(openPanel() && addDevice("Desk", password));
    ASSERT_TRUE(seesPicture(red)) << application->said() << diaryOf("person");

    constexpr int warmUp = 2;  // rounds in which caches fill
    Track viewers{"viewer"}, hosts{"host"};
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; std::chrono::steady_clock::now() - start < lengthOfTheDay(); ++round) {
        ASSERT_NO_FATAL_FAILURE(work(round));
        if (round < warmUp) continue;
        std::cout << fmt::format("round {}:", round);
        viewers.add(*application);
        hosts.add(*host);
        std::cout << std::endl;
    }
    std::cout << fmt::format("a round: viewer {} KiB, host {} KiB\n", viewers.kibARound(), hosts.kibARound());
    viewers.expectFlat();
    hosts.expectFlat();
    const std::string noSpareOutput = "Could not create the virtual display";
    EXPECT_THAT(diaryOf("person"), testing::HasSubstr("showing video"));
    EXPECT_THAT(complaintsOf("person", {noSpareOutput, "software decode", "whether a text field has"}),
                testing::IsEmpty());
    EXPECT_THAT(complaintsOf("host", {noSpareOutput, "whether a text field has"}), testing::IsEmpty());
}

}  // namespace
}  // namespace velmora
