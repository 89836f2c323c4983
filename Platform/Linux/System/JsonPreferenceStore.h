#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/System/PreferencesDocument.h"
#include "Platform/PreferenceStore.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Preferences in one JSON file that several processes share. All values live in memory under a lock; a
/// thread of its own writes what has changed and reads what others wrote (inotify on the folder).
///
/// A write takes the lock of a side file, reads the file, applies the own changes only, and replaces it: two
/// processes never undo each other's. A file that cannot be parsed is renamed aside and told in one line:
/// at start the defaults rule then, later the values in memory do. A file that cannot be read at all
/// (permissions, a disk fault) is left alone, and changes wait in memory.
class JsonPreferenceStore final : public PreferenceStore {
public:
    static constexpr std::size_t maxFileSize = 16 << 20;

    /// Reads `file` before it returns; its folder is made if need be.
    explicit JsonPreferenceStore(const std::filesystem::path& file);
    /// The user's own: velmora/preferences.json under the XDG config folder.
    static std::filesystem::path defaultFile();
    /// Writes what is still to be written.
    ~JsonPreferenceStore() override;

    std::optional<PreferenceValue> get(std::string_view key) const override;
    void set(std::string_view key, PreferenceValue value) override;
    void remove(std::string_view key) override;
    std::unique_ptr<Observation> observe(Queue& queue, Observer observer) override;
    void flush() override;

private:
    struct Subscription;
    class Observed;
    using Change = std::optional<PreferenceValue>;  // none: removed
    struct Unsaved {
        Change change;
        std::uint64_t serial;  // of the change: a later one to the same key is not taken for it
    };

    void change(std::string_view key, Change change);
    void tellLocked(const std::string& key);
    void run();
    void wake();
    bool waitForWork(bool retrySoon);
    bool write();
    void reload();
    Result<std::optional<PreferencesDocument>> readFile();
    void setAside();
    void adopt(const PreferencesDocument& document);
    void complain(const std::string& text);

    const std::filesystem::path file_;
    const std::filesystem::path sideFile_;
    int inotify_ = -1;
    int wakeUp_ = -1;

    // Of the thread (and of the constructor before it).
    PreferencesDocument lastGood_;
    std::string lastComplaint_;

    mutable std::mutex mutex_;  // guards what follows; posting to observers' queues is all it covers besides
    std::condition_variable settled_;
    PreferencesDocument::Values values_;
    std::map<std::string, Unsaved, std::less<>> unsaved_;
    std::uint64_t changesMade_ = 0;
    std::uint64_t changesTried_ = 0;  // those a write, good or not, has been tried for
    bool ending_ = false;
    std::list<std::shared_ptr<Subscription>> subscriptions_;

    std::thread thread_;  // last: it starts with everything above in place
};

}  // namespace velmora
