#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <optional>
#include <thread>

#include "Platform/Linux/Clipboard/X11Pasteboard.h"
#include "Testing/FakePasteboard.h"
#include "Testing/PumpedQueue.h"
#include "Testing/ScratchFolder.h"
#include "Testing/VirtualQueue.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"
#include "Tests/Contracts/PasteboardContract.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Type = Pasteboard::Type;
using Lack = Pasteboard::Lack;

/// A machine with much else to do answers late, and that is no fault.
const X11Pasteboard::Parameters patient{
    .reader = {.silence = 20s, .whole = 60s}, .owner = {}, .handOver = 20s};

/// A pasteboard, and another program that uses it too.
class FakeRig {
public:
    static constexpr bool knowsTypes = false;

    Pasteboard& pasteboard() { return pasteboard_; }
    void copyElsewhere(std::vector<PasteboardItem> items) { pasteboard_.copy(std::move(items)); }
    void copyFilesElsewhere(const std::vector<std::filesystem::path>& files) { pasteboard_.copyFiles(files); }
    void fallSilent() { pasteboard_.isSilent = true; }
    std::optional<Bytes> pasteElsewhere(const std::string& type) {
        for (const auto& item : pasteboard_.items()) {
            if (item.type == type) return item.data;
        }
        return std::nullopt;
    }
    bool waitUntil(std::function<bool()> condition) { return time_.advanceUntil(std::move(condition), 30s); }

private:
    VirtualTime time_;
    VirtualQueue main_{time_, "main"};
    FakePasteboard pasteboard_{main_};
};

/// The other program is xclip, or for what it cannot do a second client of ours.
class X11Rig {
public:
    static constexpr bool knowsTypes = false;

    X11Rig() { EXPECT_TRUE(server_.ok()) << server_.error(); }
    Pasteboard& pasteboard() { return *pasteboard_; }
    void copyElsewhere(std::vector<PasteboardItem> items) {
        if (items.size() != 1) return other_.write(std::move(items));
        const auto file = folder_ / "copied";
        std::ofstream(file, std::ios::binary) << textOf(items[0].data);
        // -quiet keeps it in the foreground, where it can be stopped. One that is replaced ends by itself.
        owners_.push_back(
            xclip("-quiet -t '" + nameOf(items[0].type) + "' -i '" + file.string() + "' 2>/dev/null"));
    }
    void copyFilesElsewhere(const std::vector<std::filesystem::path>& files) { other_.writeFiles(files); }
    void fallSilent() {
        owners_.back()->signal(SIGSTOP);
        pasteboard_ = std::make_unique<X11Pasteboard>(
            main_, server_.display(), X11Pasteboard::Parameters{.reader = {.silence = 100ms}});
    }
    std::optional<Bytes> pasteElsewhere(const std::string& type) {
        const auto file = folder_ / "pasted";
        // It asks us, and we answer without the main queue's help.
        const auto reader = xclip("-t '" + nameOf(type) + "' -o >'" + file.string() + "' 2>/dev/null");
        if (reader->waitForExit(20s) != 0) return std::nullopt;
        std::ifstream in(file, std::ios::binary);
        return Bytes{std::istreambuf_iterator(in), {}};
    }
    bool waitUntil(std::function<bool()> condition) { return main_.runUntil(std::move(condition), 30s); }

private:
    static std::string nameOf(const std::string& type) { return type == Type::text ? "UTF8_STRING" : type; }
    std::unique_ptr<ChildProgram> xclip(const std::string& options) {
        return *server_.run({"sh", "-c", "exec xclip -selection clipboard " + options}, {"LC_ALL=C.UTF-8"});
    }

    ScratchFolder folder_;
    XServerFixture server_{XServerFixture::Kind::xvfb};
    PumpedQueue main_;
    std::unique_ptr<X11Pasteboard> pasteboard_ =
        std::make_unique<X11Pasteboard>(main_, server_.display(), patient);
    X11Pasteboard other_{main_, server_.display(), patient};
    std::vector<std::unique_ptr<ChildProgram>> owners_;
};

struct RigNames {
    template <class Rig>
    static std::string GetName(int) {
        return std::is_same_v<Rig, FakeRig> ? "Fake" : "X11";
    }
};
using Rigs = testing::Types<FakeRig, X11Rig>;
INSTANTIATE_TYPED_TEST_SUITE_P(Machine, PasteboardContract, Rigs, RigNames);

// What only X11 has

TEST(X11PasteboardTest, thePasswordManagersHintMeansConcealed) {
    const XServerFixture server(XServerFixture::Kind::xvfb);
    PumpedQueue main;
    X11Pasteboard pasteboard(main, server.display(), patient), other(main, server.display(), patient);
    const auto typesOf = [&](std::vector<PasteboardItem> items) {
        const auto before = pasteboard.changeCount();
        other.write(std::move(items));
        std::optional<std::vector<std::string>> types;
        EXPECT_TRUE(main.runUntil([&] { return pasteboard.changeCount() != before; }, 30s));
        pasteboard.readTypes([&](auto found) { types = std::move(found); });
        EXPECT_TRUE(main.runUntil([&] { return types.has_value(); }, 30s));
        return types.value_or(std::vector<std::string>());
    };
    bool isWatching = false;
    pasteboard.readTypes([&](auto) { isWatching = true; });
    ASSERT_TRUE(main.runUntil([&] { return isWatching; }, 30s));
    const PasteboardItem password{Type::text, bytesOf("hunter2")};
    const std::string hint = "x-kde-passwordManagerHint";
    EXPECT_THAT(typesOf({password, {hint, bytesOf("secret")}}), Contains(Type::concealed));
    EXPECT_THAT(typesOf({password, {hint, bytesOf("public")}}), testing::Not(Contains(Type::concealed)));
    EXPECT_THAT(typesOf({password, {Type::transient, {}}}), Contains(Type::transient));
}

TEST(X11PasteboardTest, picturesAreReadAsPngAndOfferedAsTiffToo) {
    const XServerFixture server(XServerFixture::Kind::xvfb);
    PumpedQueue main;
    X11Pasteboard pasteboard(main, server.display(), patient), other(main, server.display(), patient);
    const auto read = [&](const char* type) {
        std::optional<Result<Bytes, Lack>> outcome;
        pasteboard.read(type, 1 << 20, [&](auto found) { outcome = std::move(found); });
        EXPECT_TRUE(main.runUntil([&] { return outcome.has_value(); }, 30s));
        return std::move(*outcome).valueOr({});
    };
    const auto copy = [&](std::vector<PasteboardItem> items) {
        const auto before = pasteboard.changeCount();
        other.write(std::move(items));
        ASSERT_TRUE(main.runUntil([&] { return pasteboard.changeCount() != before; }, 30s));
    };
    read(Type::text);  // it watches now
    // Two pixels, blue below green.
    const Bytes bmp{'B', 'M', 62, 0, 0, 0, 0, 0,  0, 0, 54, 0, 0,   0, 40, 0, 0, 0,   1, 0, 0,
                    0,   2,   0,  0, 0, 1, 0, 24, 0, 0, 0,  0, 0,   8, 0,  0, 0, 0,   0, 0, 0,
                    0,   0,   0,  0, 0, 0, 0, 0,  0, 0, 0,  0, 255, 0, 0,  0, 0, 255, 0, 0};
    copy({{"image/bmp", bmp}});
    const Bytes png = read(Type::png);
    ASSERT_GT(png.size(), 8u);
    EXPECT_EQ(textOf(ByteView(png).subspan(1, 3)), "PNG");
    copy({{Type::png, png}});
    const Bytes tiff = read("image/tiff");
    ASSERT_FALSE(tiff.empty());
    copy({{"image/tiff", tiff}});
    EXPECT_EQ(read(Type::png), png) << "the same two pixels";
    copy({{"image/tiff", {'I', 'I', '*', 0}}});
    EXPECT_TRUE(read(Type::png).empty()) << "no picture at all";
}

/// A bare client of the server that owns a selection or asks for one.
class BareClient {
public:
    explicit BareClient(const std::string& display) : client_(display) {
        xcb_create_window(connection(), XCB_COPY_FROM_PARENT, window_, client_.root(), 0, 0, 1, 1, 0,
                          XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0, nullptr);
    }
    xcb_connection_t* connection() const { return client_.connection(); }
    xcb_window_t window() const { return window_; }
    xcb_atom_t atom(const std::string& name) const {
        const XReply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
            connection(),
            xcb_intern_atom(connection(), 0, static_cast<std::uint16_t>(name.size()), name.data()), nullptr));
        return reply->atom;
    }
    void own(const std::string& selection) const {
        xcb_set_selection_owner(connection(), window_, atom(selection), XCB_CURRENT_TIME);
        xcb_flush(connection());
    }
    /// Asks for a target of the clipboard; what it is asked with is in the property.
    void convert(const std::string& target, const std::string& property) const {
        xcb_convert_selection(connection(), window_, atom("CLIPBOARD"), atom(target), atom(property),
                              XCB_CURRENT_TIME);
        xcb_flush(connection());
    }
    /// The next event of a type; none after 20 s.
    template <class Event>
    XReply<Event> next(int type) const {
        const auto end = HostClock::now() + 20s;
        while (HostClock::now() < end) {
            XReply<xcb_generic_event_t> event(xcb_poll_for_event(connection()));
            if (event && (event->response_type & 0x7f) == type)
                return XReply<Event>(reinterpret_cast<Event*>(event.release()));
            pollfd readable{xcb_get_file_descriptor(connection()), POLLIN, 0};
            if (!event) poll(&readable, 1, 1000);
        }
        return nullptr;
    }
    void put(const std::string& property, const std::string& type,
             const std::vector<xcb_atom_t>& atoms) const {
        xcb_change_property(connection(), XCB_PROP_MODE_REPLACE, window_, atom(property), atom(type), 32,
                            static_cast<std::uint32_t>(atoms.size()), atoms.data());
    }
    Bytes property(const std::string& name) const {
        const XReply<xcb_get_property_reply_t> reply(xcb_get_property_reply(
            connection(), xcb_get_property(connection(), 0, window_, atom(name), XCB_ATOM_ANY, 0, 1000),
            nullptr));
        const auto* first = static_cast<const std::uint8_t*>(xcb_get_property_value(reply.get()));
        return {first, first + xcb_get_property_value_length(reply.get())};
    }

private:
    XTestClient client_;
    const xcb_window_t window_ = xcb_generate_id(client_.connection());
};

/// What was written has reached the server.
void settle(X11Pasteboard& pasteboard, PumpedQueue& main) {
    bool isDone = false;
    pasteboard.readTypes([&](auto) { isDone = true; });
    ASSERT_TRUE(main.runUntil([&] { return isDone; }, 30s));
}

TEST(X11PasteboardTest, severalTargetsAreGivenAtOnceUnderAllTheNamesOfText) {
    const XServerFixture server(XServerFixture::Kind::xvfb);
    PumpedQueue main;
    const BareClient client(
        server.display());  // before a thread of ours connects: libXau is not made for two
    X11Pasteboard pasteboard(main, server.display(), patient);
    pasteboard.write({{Type::text, bytesOf("\u00e9")}, {"text/html", {'h'}}});
    settle(pasteboard, main);
    std::vector<xcb_atom_t> pairs;
    for (const char* target : {"UTF8_STRING", "STRING", "image/png", "TIMESTAMP", "text/html", "MULTIPLE"}) {
        pairs.push_back(client.atom(target));
        pairs.push_back(client.atom(std::string("FOR_") + target));
    }
    client.put("PAIRS", "ATOM_PAIR", pairs);
    client.convert("MULTIPLE", "PAIRS");
    const auto notice = client.next<xcb_selection_notify_event_t>(XCB_SELECTION_NOTIFY);
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->property, client.atom("PAIRS"));
    EXPECT_EQ(client.property("FOR_UTF8_STRING"), (Bytes{0xC3, 0xA9}));
    EXPECT_EQ(client.property("FOR_STRING"), (Bytes{0xE9}));
    EXPECT_EQ(client.property("FOR_text/html"), (Bytes{'h'}));
    EXPECT_EQ(client.property("FOR_TIMESTAMP").size(), 4u);
    std::vector<xcb_atom_t> answered(pairs.size());
    const Bytes list = client.property("PAIRS");
    ASSERT_EQ(list.size(), pairs.size() * sizeof(xcb_atom_t));
    std::memcpy(answered.data(), list.data(), list.size());
    pairs[4] = pairs[10] = XCB_ATOM_NONE;  // there is no picture, and no list in a list
    EXPECT_EQ(answered, pairs);
}

TEST(X11PasteboardTest, aClipboardManagerKeepsWhatWasWritten) {
    const XServerFixture server(XServerFixture::Kind::xvfb);
    PumpedQueue main;
    const BareClient manager(server.display());
    manager.own("CLIPBOARD_MANAGER");
    auto pasteboard = std::make_unique<X11Pasteboard>(main, server.display(), patient);
    pasteboard->write({{Type::text, bytesOf("keep me")}});
    settle(*pasteboard, main);
    std::thread quitting([&] { pasteboard.reset(); });
    const auto request = manager.next<xcb_selection_request_event_t>(XCB_SELECTION_REQUEST);
    manager.convert("UTF8_STRING", "SAVED");
    const auto notice = manager.next<xcb_selection_notify_event_t>(XCB_SELECTION_NOTIFY);
    if (request) {
        xcb_selection_notify_event_t done{.response_type = XCB_SELECTION_NOTIFY,
                                          .requestor = request->requestor,
                                          .selection = request->selection,
                                          .target = request->target,
                                          .property = request->property};
        char event[32]{};
        std::memcpy(event, &done, sizeof done);
        xcb_send_event(manager.connection(), 0, request->requestor, 0, event);
        xcb_flush(manager.connection());
    }
    quitting.join();
    ASSERT_TRUE(request && notice);
    EXPECT_EQ(request->target, manager.atom("SAVE_TARGETS"));
    EXPECT_EQ(textOf(manager.property("SAVED")), "keep me");
}

TEST(X11PasteboardTest, withoutAServerItIsEmptyAndAnswersAllTheSame) {
    PumpedQueue main;
    X11Pasteboard pasteboard(main, ":9999");
    std::optional<Result<Bytes, Lack>> outcome;
    pasteboard.write({{Type::text, bytesOf("a")}});
    pasteboard.read(Type::text, 10, [&](auto found) { outcome = std::move(found); });
    ASSERT_TRUE(main.runUntil([&] { return outcome.has_value(); }, 30s));
    EXPECT_FALSE(*outcome);
}

TEST(X11PasteboardTest, aServerThatDiesLeavesNobodyWaiting) {
    XServerFixture server(XServerFixture::Kind::xvfb);
    PumpedQueue main;
    X11Pasteboard pasteboard(main, server.display());
    server.kill();
    for (int i = 0; i < 3; ++i) {
        bool isDone = false;
        pasteboard.readTypes([&](auto) { isDone = true; });
        EXPECT_TRUE(main.runUntil([&] { return isDone; }, 30s));
    }
}

}  // namespace
}  // namespace velmora
