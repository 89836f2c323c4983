#include "Platform/Linux/Clipboard/X11Pasteboard.h"

#include <fmt/format.h>
#include <pthread.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "Platform/Linux/Clipboard/ClipboardForms.h"
#include "Platform/Linux/Clipboard/PictureForms.h"
#include "Platform/Linux/Clipboard/UriList.h"
#include "Platform/Linux/Display/XEventWaiter.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

namespace {

using namespace ClipboardForms;

constexpr std::size_t longestList = 4 << 20;  // of targets, or of files

/// The names that plain text goes by, the best first. The last one is ISO 8859-1, the others are UTF-8.
const std::vector<std::string> textTargets{"UTF8_STRING", Pasteboard::Type::text, "text/plain", "STRING"};

Bytes fromLatin1(ByteView text) {
    Bytes utf8;
    for (const std::uint8_t c : text) {
        if (c >= 0x80) utf8.push_back(static_cast<std::uint8_t>(0xC0 | (c >> 6)));
        utf8.push_back(c >= 0x80 ? static_cast<std::uint8_t>(0x80 | (c & 0x3F)) : c);
    }
    return utf8;
}

/// None if it says something that ISO 8859-1 cannot.
std::optional<Bytes> toLatin1(ByteView utf8) {
    Bytes text;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        if (utf8[i] < 0x80) {
            text.push_back(utf8[i]);
        } else if ((utf8[i] & 0xFE) == 0xC2 && i + 1 < utf8.size()) {
            text.push_back(static_cast<std::uint8_t>((utf8[i] << 6) | (utf8[i + 1] & 0x3F)));
            ++i;
        } else {
            return std::nullopt;
        }
    }
    return text;
}

}  // namespace

/// The thread, and what lives on it.
class X11Pasteboard::Client {
public:
    using Command = UniqueFunction<void(Client*)>;

    Client(std::string display, const Parameters& parameters, std::function<void()> onChange)
        : parameters_(parameters),
          onChange_(std::move(onChange)),
          thread_([this, display = std::move(display)] { run(display); }) {}
    ~Client() {
        {
            const std::lock_guard lock(mutex_);
            isEnding_ = true;
        }
        waiter_.wake();
        thread_.join();
    }

    /// Any thread. `command` runs on ours with this client; with null, anywhere, once there is no server.
    void perform(Command command) {
        {
            const std::lock_guard lock(mutex_);
            if (!hasEnded_) {
                commands_.push_back(std::move(command));
                waiter_.wake();
                return;
            }
        }
        command(nullptr);
    }
    bool hasEnded() const {
        const std::lock_guard lock(mutex_);
        return hasEnded_;
    }

    // On the thread.

    void readTypes(UniqueFunction<void(std::vector<std::string>)> done) {
        if (const auto* own = owner_->items()) return done(typesOf(*own));
        readTarget("TARGETS", longestList, [this, done = std::move(done)](auto outcome) mutable {
            if (!outcome) return done({});
            std::vector<xcb_atom_t> targets(outcome->size() / sizeof(xcb_atom_t));
            std::memcpy(targets.data(), outcome->data(), targets.size() * sizeof(xcb_atom_t));
            auto types = atoms_->namesOf(targets);
            addIfOffered(types, Type::files, {copiedFiles});
            addIfOffered(types, Type::png, pictures);
            if (!contains(types, passwordHint)) return done(std::move(types));
            tellHint(std::move(types), std::move(done));
        });
    }

    /// The first of the targets that is to be had.
    void readFirst(std::vector<std::string> targets, std::size_t most, Reading done) {
        const std::string target = targets.front();
        targets.erase(targets.begin());
        readTarget(target, most,
                   [this, target, targets = std::move(targets), most,
                    done = std::move(done)](Result<Bytes, Lack> outcome) mutable {
                       if (!outcome && outcome.error().tooLong == 0 && !targets.empty())
                           return readFirst(std::move(targets), most, std::move(done));
                       done(outcome ? translated(target, *std::move(outcome)) : outcome.error());
                   });
    }

    void offer(std::vector<PasteboardItem> items) {
        std::vector<XSelectionOwner::Item> offered;
        for (PasteboardItem& item : items) {
            const auto data = std::make_shared<const Bytes>(std::move(item.data));
            if (item.type != Type::text) {
                offered.push_back({atoms_->of(item.type), data});
                // For programs that know nothing else.
                if (item.type == Type::png) offered.push_back({atoms_->of("image/tiff"), data, tiffOf});
                continue;
            }
            for (const std::string& target : textTargets) {
                if (target != textTargets.back()) {
                    offered.push_back({atoms_->of(target), data});
                } else if (auto latin1 = toLatin1(*data)) {
                    offered.push_back({atoms_->of(target), std::make_shared<const Bytes>(*latin1)});
                }
            }
        }
        owner_->offer(std::move(offered));
    }

private:
    void readTarget(const std::string& target, std::size_t most, Reading done) {
        const xcb_atom_t atom = atoms_->of(target);
        const auto* own = owner_->items();
        if (!own) return reader_->read(atom, most, HostClock::now(), std::move(done));
        const auto item = std::ranges::find(*own, atom, &XSelectionOwner::Item::target);
        if (item == own->end() || item->convert) return done(Lack{});
        if (item->data->size() > most) return done(Lack{.tooLong = item->data->size()});
        done(*item->data);
    }

    /// What the names of other forms stand for.
    static Result<Bytes, Lack> translated(const std::string& target, Bytes data) {
        if (target == textTargets.back()) return fromLatin1(data);
        if (target == Type::png || !contains(pictures, target)) return data;
        auto png = pngOf(data);
        return png ? Result<Bytes, Lack>(*std::move(png)) : Lack{};
    }

    std::vector<std::string> typesOf(const std::vector<XSelectionOwner::Item>& items) {
        std::vector<xcb_atom_t> targets;
        for (const auto& item : items) targets.push_back(item.target);
        return atoms_->namesOf(targets);
    }

    void tellHint(std::vector<std::string> types, UniqueFunction<void(std::vector<std::string>)> done) {
        readTarget(passwordHint, 256,
                   [types = std::move(types), done = std::move(done)](auto outcome) mutable {
                       if (isSecret(outcome)) types.push_back(Type::concealed);
                       done(std::move(types));
                   });
    }

    void run(const std::string& display) {
        pthread_setname_np(pthread_self(), "clipboard");
        if (const Status status = open(display); status) {
            while (step()) {
            }
            reader_->giveUpAll();
            handOver();
        } else {
            hostLog(fmt::format("⚠︎ The clipboard is not shared: {}", status.error().text));
        }
        std::deque<Command> left;
        {
            const std::lock_guard lock(mutex_);
            hasEnded_ = true;
            left.swap(commands_);
        }
        for (Command& command : left) command(nullptr);
        owner_.reset();
        reader_.reset();
    }

    Status open(const std::string& display) {
        auto opened = XConnection::open(display);
        if (!opened) return opened.error();
        connection_ = *std::move(opened);
        const auto* fixes = connection_->extension(xcb_xfixes_id);
        if (!fixes ||
            !connection_->reply(xcb_xfixes_query_version_reply, xcb_xfixes_query_version(*connection_, 5, 0)))
            return Failure{"the X server has no XFIXES"};
        selectionEvent_ = fixes->first_event + XCB_XFIXES_SELECTION_NOTIFY;
        atoms_.emplace(*connection_);
        const xcb_atom_t clipboard = atoms_->of("CLIPBOARD");
        reader_.emplace(*connection_, *atoms_, clipboard, parameters_.reader);
        owner_.emplace(*connection_, *atoms_, clipboard, parameters_.owner);
        xcb_xfixes_select_selection_input(*connection_, owner_->window(), clipboard,
                                          XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER |
                                              XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY |
                                              XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
        return Done{};
    }

    /// Has the desktop's clipboard manager, if one runs, keep what we hold: it would end with us.
    void handOver() {
        manager_ = atoms_->of("CLIPBOARD_MANAGER");
        if (!owner_->items() || !owner_->askToSave(manager_)) return;
        const auto end = HostClock::now() + parameters_.handOver;
        while (!isHandedOver_ && !connection_->isBroken() && HostClock::now() < end) {
            while (const auto event = connection_->pollEvent()) dispatch(*event);
            if (!isHandedOver_) waiter_.wait(*connection_, end - HostClock::now());
        }
    }

    /// One round: what is asked, what is overdue, what has arrived, and the wait for more.
    bool step() {
        std::deque<Command> commands;
        {
            const std::lock_guard lock(mutex_);
            if (isEnding_) return false;
            commands.swap(commands_);
        }
        for (Command& command : commands) command(this);
        reader_->giveUpSilent(HostClock::now());
        owner_->giveUpSilent(HostClock::now());
        while (const auto event = connection_->pollEvent()) dispatch(*event);
        if (connection_->isBroken()) return false;
        auto next = reader_->nextDeadline();
        if (const auto other = owner_->nextDeadline(); other && (!next || *other < *next)) next = other;
        waiter_.wait(*connection_, next ? std::optional(*next - HostClock::now()) : std::nullopt);
        return true;
    }

    template <class Event>
    static const Event& as(const xcb_generic_event_t& event) {
        return reinterpret_cast<const Event&>(event);
    }

    void dispatch(const xcb_generic_event_t& event) {
        const auto now = HostClock::now();
        const int type = event.response_type & 0x7f;
        if (type == selectionEvent_) {
            const auto& change = as<xcb_xfixes_selection_notify_event_t>(event);
            if (change.owner == owner_->window()) return owner_->handleTaken(change.selection_timestamp);
            if (change.owner == XCB_NONE) reader_->giveUpAll();
            onChange_();
            return;
        }
        switch (type) {
            case XCB_SELECTION_NOTIFY:
                if (as<xcb_selection_notify_event_t>(event).selection == manager_) isHandedOver_ = true;
                return reader_->handle(as<xcb_selection_notify_event_t>(event), now);
            case XCB_SELECTION_REQUEST:
                return owner_->handle(as<xcb_selection_request_event_t>(event), now);
            case XCB_SELECTION_CLEAR:
                return owner_->handle(as<xcb_selection_clear_event_t>(event));
            case XCB_PROPERTY_NOTIFY:
                reader_->handle(as<xcb_property_notify_event_t>(event), now);
                return owner_->handle(as<xcb_property_notify_event_t>(event), now);
            case XCB_DESTROY_NOTIFY:
                return owner_->handle(as<xcb_destroy_notify_event_t>(event));
            default:
                return;  // also errors: of windows that are gone
        }
    }

    const Parameters parameters_;
    const std::function<void()> onChange_;
    XEventWaiter waiter_;
    mutable std::mutex mutex_;  // guards the three fields below
    std::deque<Command> commands_;
    bool isEnding_ = false, hasEnded_ = false;

    // Of the thread.
    std::unique_ptr<XConnection> connection_;
    int selectionEvent_ = 0;
    xcb_atom_t manager_ = XCB_ATOM_NONE;  // set at the end
    bool isHandedOver_ = false;
    std::optional<XAtoms> atoms_;
    std::optional<XSelectionReader> reader_;
    std::optional<XSelectionOwner> owner_;

    std::thread thread_;  // last: it starts with everything above in place
};

X11Pasteboard::X11Pasteboard(Queue& main, std::string display)
    : X11Pasteboard(main, std::move(display), Parameters()) {}

X11Pasteboard::X11Pasteboard(Queue& main, std::string display, const Parameters& parameters)
    : main_(main), display_(std::move(display)), parameters_(parameters) {
    client();  // watches from now on
}

X11Pasteboard::~X11Pasteboard() = default;

X11Pasteboard::Client& X11Pasteboard::client() {
    if (!client_ || client_->hasEnded()) {
        client_ = std::make_unique<Client>(
            display_, parameters_,
            [&main = main_, told = alive_.guard([this] { handleChange(); })] { main.post(told); });
    }
    return *client_;
}

void X11Pasteboard::handleChange() {
    ++count_;
    tellObservers();
}

template <class Value>
UniqueFunction<void(Value)> X11Pasteboard::onMain(UniqueFunction<void(Value)> done) {
    return [&main = main_, alive = alive_.weak(), done = std::move(done)](Value value) mutable {
        main.post([alive, done = std::move(done), value = std::move(value)]() mutable {
            if (!alive.expired()) done(std::move(value));
        });
    };
}

std::int64_t X11Pasteboard::changeCount() {
    client();
    return count_;
}

void X11Pasteboard::readTypes(Types done) {
    client().perform([done = onMain(std::move(done))](Client* client) mutable {
        client ? client->readTypes(std::move(done)) : done({});
    });
}

void X11Pasteboard::read(const std::string& type, std::size_t most, Reading done) {
    auto targets = type == Type::text ? textTargets : type == Type::png ? pictures : std::vector{type};
    client().perform(
        [targets = std::move(targets), most, done = onMain(std::move(done))](Client* client) mutable {
            client ? client->readFirst(std::move(targets), most, std::move(done)) : done(Lack{});
        });
}

void X11Pasteboard::readFiles(Files done) {
    client().perform([done = onMain(std::move(done))](Client* client) mutable {
        if (!client) return done({});
        client->readFirst(
            {Type::files, copiedFiles}, longestList,
            [done = std::move(done)](Result<Bytes, Lack> outcome) mutable {
                done(outcome ? localFiles(textOf(*outcome)) : std::vector<std::filesystem::path>());
            });
    });
}

void X11Pasteboard::write(std::vector<PasteboardItem> items) {
    client().perform([items = std::move(items)](Client* client) mutable {
        if (client) client->offer(std::move(items));
    });
    ++count_;
    main_.post(alive_.guard([this] { tellObservers(); }));
}

void X11Pasteboard::writeFiles(const std::vector<std::filesystem::path>& files) {
    write(ofFiles(files));
}

}  // namespace velmora
