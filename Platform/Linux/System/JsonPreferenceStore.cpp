#include "Platform/Linux/System/JsonPreferenceStore.h"

#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <set>
#include <utility>

#include "Platform/Linux/System/PrivateFile.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

/// A link set up by the user stays one: what it points at is replaced.
std::filesystem::path resolved(const std::filesystem::path& file) {
    std::error_code error;
    auto real = std::filesystem::weakly_canonical(file, error);
    return error ? file : real;
}

/// Not `==`: a number that is none would count as changed for ever.
bool isSame(const PreferenceValue& a, const PreferenceValue& b) {
    const auto* x = std::get_if<double>(&a);
    const auto* y = std::get_if<double>(&b);
    return a == b || (x && y && std::isnan(*x) && std::isnan(*y));
}

std::filesystem::path withSuffix(std::filesystem::path path, std::string_view suffix) {
    path += suffix;
    return path;
}

}  // namespace

struct JsonPreferenceStore::Subscription {
    Queue& queue;
    Observer observer;
    bool alive = true;  // of `queue`
};

class JsonPreferenceStore::Observed final : public Observation {
public:
    Observed(JsonPreferenceStore& store, std::shared_ptr<Subscription> subscription)
        : store_(store), subscription_(std::move(subscription)) {}
    ~Observed() override {
        subscription_->alive = false;
        std::lock_guard lock(store_.mutex_);
        store_.subscriptions_.remove(subscription_);
    }

private:
    JsonPreferenceStore& store_;
    const std::shared_ptr<Subscription> subscription_;
};

std::filesystem::path JsonPreferenceStore::defaultFile() {
    return configFolder() / "preferences.json";
}

JsonPreferenceStore::JsonPreferenceStore(const std::filesystem::path& file)
    : file_(resolved(file)), sideFile_(withSuffix(file_, ".lock")) {
    if (auto made = makePrivateFolder(file_.parent_path()); !made) complain(made.error().text);
    inotify_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    wakeUp_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    // The folder, not the file: a rename replaces the file, and a watch would stay with the old one.
    if (::inotify_add_watch(inotify_, file_.parent_path().c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
        complain("cannot watch their folder; changes by other processes are seen at the next start");
    }
    if (auto document = readFile(); !document) {
        complain(document.error().text);
    } else if (*document) {
        adopt(**document);
    } else if (auto lock = FileLock::take(sideFile_); lock) {
        setAside();
    }
    thread_ = std::thread([this] { run(); });
    pthread_setname_np(thread_.native_handle(), "preferences");
}

JsonPreferenceStore::~JsonPreferenceStore() {
    {
        std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake();
    thread_.join();
    ::close(inotify_);
    ::close(wakeUp_);
}

std::optional<PreferenceValue> JsonPreferenceStore::get(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

void JsonPreferenceStore::set(std::string_view key, PreferenceValue value) {
    change(key, std::move(value));
}

void JsonPreferenceStore::remove(std::string_view key) {
    change(key, std::nullopt);
}

void JsonPreferenceStore::change(std::string_view key, Change change) {
    {
        std::lock_guard lock(mutex_);
        const auto found = values_.find(key);
        if (found == values_.end() ? !change : change && isSame(*change, found->second)) return;
        const std::string name(key);
        if (change) {
            values_.insert_or_assign(name, *change);
        } else {
            values_.erase(found);
        }
        unsaved_.insert_or_assign(name, Unsaved{std::move(change), ++changesMade_});
        tellLocked(name);
    }
    wake();
}

std::unique_ptr<PreferenceStore::Observation> JsonPreferenceStore::observe(Queue& queue, Observer observer) {
    auto subscription = std::make_shared<Subscription>(Subscription{queue, std::move(observer)});
    std::lock_guard lock(mutex_);
    subscriptions_.push_back(subscription);
    return std::make_unique<Observed>(*this, std::move(subscription));
}

void JsonPreferenceStore::flush() {
    std::unique_lock lock(mutex_);
    const auto wanted = changesMade_;
    settled_.wait(lock, [&] { return changesTried_ >= wanted; });
}

// Under the lock, so that a queue is never posted to after its observation has ended.
void JsonPreferenceStore::tellLocked(const std::string& key) {
    for (const auto& subscription : subscriptions_) {
        subscription->queue.post([subscription, key] {
            if (subscription->alive) subscription->observer(key);
        });
    }
}

void JsonPreferenceStore::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeUp_, &one, sizeof one);
}

void JsonPreferenceStore::run() {
    bool ending = false;
    while (!ending) {
        std::uint64_t made = 0;
        bool dirty = false;
        {
            std::lock_guard lock(mutex_);
            made = changesMade_;
            dirty = !unsaved_.empty();
            ending = ending_;
        }
        const bool saved = !dirty || write();
        {
            std::lock_guard lock(mutex_);
            changesTried_ = made;
        }
        settled_.notify_all();
        if (!ending && waitForWork(!saved)) reload();
    }
}

/// True if the folder has changed. Returns as well when woken, and after a second if a write is to be
/// tried again.
bool JsonPreferenceStore::waitForWork(bool retrySoon) {
    std::array<pollfd, 2> sources{{{inotify_, POLLIN, 0}, {wakeUp_, POLLIN, 0}}};
    ::poll(sources.data(), sources.size(), retrySoon ? 1000 : -1);
    std::uint64_t count = 0;
    [[maybe_unused]] const auto drained = ::read(wakeUp_, &count, sizeof count);
    alignas(inotify_event) std::array<char, 4096> events;
    bool ours = false;
    ssize_t length = 0;
    while ((length = ::read(inotify_, events.data(), events.size())) > 0) {
        for (const char* at = events.data(); at < events.data() + length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            ours |= (event->mask & IN_Q_OVERFLOW) || (event->len > 0 && event->name == file_.filename());
            at += sizeof(inotify_event) + event->len;
        }
    }
    return ours;
}

bool JsonPreferenceStore::write() {
    // The folder may have been removed since; making it again costs a few system calls.
    if (auto made = makePrivateFolder(file_.parent_path()); !made) return complain(made.error().text), false;
    auto lock = FileLock::take(sideFile_);
    if (!lock) return complain(lock.error().text), false;
    auto onDisk = readFile();
    if (!onDisk) return complain(onDisk.error().text), false;
    if (!*onDisk) setAside();
    PreferencesDocument document = *onDisk ? **std::move(onDisk) : lastGood_;

    decltype(unsaved_) changes;
    {
        std::lock_guard guard(mutex_);
        changes = unsaved_;
    }
    for (const auto& [key, unsaved] : changes) {
        if (unsaved.change) {
            document.set(key, *unsaved.change);
        } else {
            document.remove(key);
        }
    }
    if (auto written = replacePrivateFile(file_, viewOf(document.text())); !written) {
        return complain(written.error().text), false;
    }
    {
        std::lock_guard guard(mutex_);
        for (const auto& [key, unsaved] : changes) {
            const auto waiting = unsaved_.find(key);
            if (waiting->second.serial == unsaved.serial) unsaved_.erase(waiting);
        }
    }
    lastComplaint_.clear();
    adopt(document);
    return true;
}

void JsonPreferenceStore::reload() {
    auto document = readFile();
    if (!document) return complain(document.error().text);
    if (*document) return adopt(**document);
    // Somebody may be editing it by hand: it is set aside only when we must write.
    complain("preferences are not valid JSON; keeping the values in use");
}

/// The document on the disk, an empty one if there is no file; none if it cannot be parsed.
Result<std::optional<PreferencesDocument>> JsonPreferenceStore::readFile() {
    auto content = readPrivateFile(file_, maxFileSize);
    if (!content && content.error().code == EFBIG) return std::optional<PreferencesDocument>();
    if (!content) return content.error();
    if (!*content) return std::optional(PreferencesDocument());
    return PreferencesDocument::parse(textOf(**content));
}

/// With the side file locked. Another process may have mended the file meanwhile.
void JsonPreferenceStore::setAside() {
    if (auto again = readFile(); !again || *again) return;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto aside = withSuffix(
        file_, fmt::format(".bad-{}", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()));
    std::error_code error;
    std::filesystem::rename(file_, aside, error);
    debugLog(error ? fmt::format("⚠︎ Broken preferences in {} stay: {}", file_.string(), error.message())
                   : fmt::format("⚠︎ The preferences could not be read; kept as {}", aside.string()));
}

/// Takes over what is on the disk; own changes that wait to be written win.
void JsonPreferenceStore::adopt(const PreferencesDocument& document) {
    auto fresh = document.values();
    lastGood_ = document;
    std::lock_guard lock(mutex_);
    for (const auto& [key, unsaved] : unsaved_) {
        if (unsaved.change) {
            fresh.insert_or_assign(key, *unsaved.change);
        } else {
            fresh.erase(key);
        }
    }
    std::set<std::string> changed;
    for (const auto& [key, value] : fresh) {
        const auto old = values_.find(key);
        if (old == values_.end() || !isSame(old->second, value)) changed.insert(key);
    }
    for (const auto& [key, value] : values_) {
        if (!fresh.contains(key)) changed.insert(key);
    }
    values_ = std::move(fresh);
    for (const auto& key : changed) tellLocked(key);
}

/// One line per trouble, not one per retry.
void JsonPreferenceStore::complain(const std::string& text) {
    if (text == lastComplaint_) return;
    lastComplaint_ = text;
    debugLog("⚠︎ Preferences: " + text);
}

}  // namespace velmora
