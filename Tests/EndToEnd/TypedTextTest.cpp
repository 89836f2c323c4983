#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "Host/InputInjector.h"
#include "Platform/Linux/Input/X11EventPoster.h"
#include "Platform/Linux/Input/X11KeyboardLayout.h"
#include "Testing/FakeDisplays.h"
#include "Testing/ScratchFolder.h"
#include "Testing/VirtualQueue.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"

namespace velmora {
namespace {

using Kind = PostedEvent::Kind;
using Clock = std::chrono::steady_clock;

struct Case {
    const char* application;
    const char* layout;
};
void PrintTo(const Case& c, std::ostream* out) {
    *out << c.application << " " << c.layout;
}

/// Types into a real application under a window manager, and reads back what it got.
class TypedText : public testing::TestWithParam<Case> {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.ok()) << server_.error();
        windowManager_ = start({"openbox", "--sm-disable"});
        ASSERT_TRUE(windowManager_ && holds([&] { return client_.hasWindowManager(); }));
        ASSERT_TRUE(runs({"setxkbmap", "-layout", GetParam().layout}));
        const std::string name = GetParam().application;
        if (name == "xterm") {
            application_ =
                start({"xterm", "-e", "sh", "-c", "stty raw -echo; exec cat > " + path().string()});
        } else if (name == "mousepad") {
            std::ofstream(path()).close();
            application_ = start({"mousepad", path().string()});
        } else {
            application_ = start({TEXT_FIELD, path().string()});
        }
        ASSERT_NE(application_, nullptr);
    }

    std::unique_ptr<ChildProgram> start(const std::vector<std::string>& arguments) {
        auto program = server_.run(
            arguments, {"LC_ALL=C.UTF-8", "QT_QPA_PLATFORM=xcb", "NO_AT_BRIDGE=1", "GSETTINGS_BACKEND=memory",
                        "DBUS_SESSION_BUS_ADDRESS=disabled:", "GTK_IM_MODULE=none", "XMODIFIERS",
                        "HOME=" + (folder_ / "").string()});
        return program ? std::move(*program) : nullptr;
    }
    bool runs(const std::vector<std::string>& arguments) {
        const auto program = start(arguments);
        return program && program->waitForExit(std::chrono::seconds(10)) == 0;
    }
    void open(EventPosterFactory::Options options) {
        poster_ = makeX11EventPosterFactory(server_.display())->make(options);
        ASSERT_NE(poster_, nullptr);
        ASSERT_TRUE(becomesReady());
    }

    std::filesystem::path path() const { return folder_ / "typed.txt"; }
    std::string content() const {
        std::ifstream file(path(), std::ios::binary);
        std::string text{std::istreambuf_iterator<char>(file), {}};
        if (text.ends_with('\n')) text.pop_back();   // the editor ends a file with one
        text.erase(0, text.find_first_not_of('.'));  // what `becomesReady` typed
        return text;
    }
    void tap(std::uint16_t key, std::uint64_t flags = 0) {
        poster_->post({.kind = Kind::keyDown, .keyCode = key, .flags = flags});
        poster_->post({.kind = Kind::keyUp, .keyCode = key, .flags = flags});
    }
    void save() {
        if (std::string(GetParam().application) == "mousepad") tap(1, EventFlags::control);
    }
    /// An application takes keys some time after its start: dots are typed until one arrives. Now and then a
    /// window manager withholds the keyboard from a window that opens while somebody types: then it is
    /// clicked into, as a person would do.
    bool becomesReady() {
        int attempts = 0;
        return holds([&] {
            if (++attempts % 20 == 0) {
                poster_->post({.kind = Kind::mouseDown, .x = 200, .y = 200});
                poster_->post({.kind = Kind::mouseUp, .x = 200, .y = 200});
            }
            poster_->post({.kind = Kind::text, .text = u"."});
            save();
            std::ifstream file(path());
            return file.peek() == '.';
        });
    }
    /// True as soon as the application has `text`.
    bool arrives(const std::string& text) {
        const bool has = holds([&] {
            save();
            return content() == text;
        });
        if (!has) ADD_FAILURE() << "typed: " << text << "\n  read: " << content();
        return has;
    }
    template <class F>
    static bool holds(F condition) {
        const auto end = Clock::now() + std::chrono::seconds(20);
        while (Clock::now() < end) {
            if (condition()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));  // between two looks
        }
        return condition();
    }

    ScratchFolder folder_;
    XServerFixture server_{{.size = {1024, 768}}};
    XTestClient client_{server_.display()};
    std::unique_ptr<ChildProgram> windowManager_, application_;
    std::unique_ptr<EventPoster> poster_;
};

const std::u16string mixed =
    u"Hello, World! x^2 ~/a@b.c [y] {z} \\ | \u00E9 \u20AC \u00F1 \u00FC\u00DF \u4F60\u597D \U0001F600 `'\" "
    u"end";
const std::string mixedUtf8 =
    "Hello, World! x^2 ~/a@b.c [y] {z} \\ | \u00E9 \u20AC \u00F1 \u00FC\u00DF \u4F60\u597D \U0001F600 `'\" "
    "end";

TEST_P(TypedText, arrivesThoughTheLayoutLacksMostOfItAndSpareKeysAreFew) {
    ASSERT_NO_FATAL_FAILURE(open({}));
    poster_->post({.kind = Kind::text, .text = mixed});
    ASSERT_TRUE(arrives(mixedUtf8));

    std::u16string text;
    std::string utf8;
    for (char16_t i = 0; i < 60; ++i) {
        const auto character = static_cast<char16_t>(0x4E00 + 7 * i);
        text += character;
        utf8 += {static_cast<char>(0xE0 | character >> 12), static_cast<char>(0x80 | (character >> 6 & 0x3F)),
                 static_cast<char>(0x80 | (character & 0x3F))};
    }
    const auto begun = Clock::now();
    poster_->post({.kind = Kind::text, .text = text});
    RecordProperty("milliseconds", static_cast<int>((Clock::now() - begun) / std::chrono::milliseconds(1)));
    EXPECT_TRUE(arrives(mixedUtf8 + utf8));
}

TEST_P(TypedText, ofAnAgentArrivesKeyByKey) {
    ASSERT_NO_FATAL_FAILURE(open({.agent = true}));
    VirtualTime time;
    VirtualQueue queue(time);
    FakeDisplays displays;
    X11KeyboardLayout layout(server_.display());
    InputInjector injector(std::move(poster_), layout, displays, queue, {.agent = true});
    poster_ = makeX11EventPosterFactory(server_.display())->make({});  // saves the text
    queue.runSync([&] {
        for (std::size_t i = 0; i < mixedUtf8.size();) {
            const auto first = static_cast<unsigned char>(mixedUtf8[i]);
            const std::size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
            InputEvent event{.kind = InputEvent::Kind::key, .characters = mixedUtf8.substr(i, length)};
            for (const bool down : {true, false}) {
                event.down = down;
                injector.handle(event);
            }
            i += length;
        }
    });
    EXPECT_TRUE(arrives(mixedUtf8));
}

INSTANTIATE_TEST_SUITE_P(, TypedText,
                         testing::Values(Case{"xterm", "us"}, Case{"xterm", "de"}, Case{"TextField", "us"},
                                         Case{"TextField", "de"}, Case{"mousepad", "us"}),
                         [](const auto& info) {
                             return std::string(info.param.application) + "_" + info.param.layout;
                         });

}  // namespace
}  // namespace velmora
