#include "Platform/Linux/System/JsonPreferenceStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <sstream>

#include "Platform/Linux/System/PrivateFile.h"
#include "Testing/ScratchFolder.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

class JsonPreferenceStoreTest : public testing::Test {
protected:
    JsonPreferenceStoreTest() { DebugLog::shared().clear(); }

    const std::filesystem::path& file() const { return file_; }
    void put(std::string_view text) { std::ofstream(file_) << text; }
    std::string content() const {
        std::stringstream text;
        text << std::ifstream(file_).rdbuf();
        return text.str();
    }
    std::vector<std::filesystem::path> filesSetAside() const {
        std::vector<std::filesystem::path> found;
        for (const auto& entry : std::filesystem::directory_iterator(file_.parent_path())) {
            if (entry.path().filename().string().find(".bad-") != std::string::npos) {
                found.push_back(entry.path());
            }
        }
        return found;
    }

private:
    ScratchFolder folder_;
    const std::filesystem::path file_ = folder_ / "velmora/preferences.json";
};

TEST_F(JsonPreferenceStoreTest, readsAFileWrittenByHand) {
    std::filesystem::create_directories(file().parent_path());
    put(R"({"b": true, "i": 20, "d": 20.0, "s": "20", "x": {"$bytes": "AP8Q"}, "t": {"$date": 1500},
            "n": null, "list": [1], "big": 18446744073709551615, "odd": {"$bytes": "AP8"}})");
    JsonPreferenceStore store(file());
    EXPECT_EQ(store.get("b"), PreferenceValue(true));
    EXPECT_EQ(store.get("i"), PreferenceValue(std::int64_t{20}));
    EXPECT_EQ(store.get("d"), PreferenceValue(20.0));
    EXPECT_EQ(store.get("s"), PreferenceValue(std::string("20")));
    EXPECT_EQ(store.get("x"), PreferenceValue(Bytes{0x00, 0xff, 0x10}));
    EXPECT_EQ(store.get("t"), PreferenceValue(PreferenceDate(1500ms)));
    for (const auto* key : {"n", "list", "big", "odd"}) EXPECT_EQ(store.get(key), std::nullopt) << key;

    store.set("i", std::int64_t{21});
    store.flush();
    EXPECT_THAT(content(), testing::HasSubstr("18446744073709551615")) << "what is not understood stays";
    EXPECT_THAT(content(), testing::HasSubstr("\"i\": 21"));
}

TEST_F(JsonPreferenceStoreTest, valuesSurviveARestartInAPrivateFile) {
    {
        JsonPreferenceStore store(file());
        store.set("gone", true);
        store.set("id", std::string("123456789"));
        store.set("nan", std::numeric_limits<double>::quiet_NaN());
        store.remove("gone");
    }
    struct stat info {};
    ASSERT_EQ(::stat(file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    JsonPreferenceStore store(file());
    EXPECT_EQ(store.string("id"), "123456789");
    EXPECT_TRUE(store.getAs<double>("nan"));
    EXPECT_EQ(store.get("gone"), std::nullopt);
}

TEST_F(JsonPreferenceStoreTest, aBrokenFileIsSetAsideWithOneLineAndDefaultsRule) {
    std::filesystem::create_directories(file().parent_path());
    for (const auto& text : {std::string("{\"host.id\": \"123"), std::string("[]"), std::string(100'000, '['),
                             "{\"a\":" + std::string(100'000, '[')}) {
        DebugLog::shared().clear();
        put(text);
        JsonPreferenceStore store(file());
        EXPECT_EQ(store.get("host.id"), std::nullopt);
        ASSERT_EQ(filesSetAside().size(), 1u);
        EXPECT_EQ(std::filesystem::file_size(filesSetAside()[0]), text.size());
        EXPECT_EQ(DebugLog::shared().entries().size(), 1u);
        std::filesystem::remove(filesSetAside()[0]);
    }
}

TEST_F(JsonPreferenceStoreTest, aFileBrokenWhileRunningLosesNeitherItsTextNorTheValuesInUse) {
    JsonPreferenceStore store(file());
    store.set("kept", std::int64_t{1});
    store.flush();
    put("{ a slip of the pen");
    store.set("new", std::int64_t{2});
    store.flush();
    EXPECT_EQ(filesSetAside().size(), 1u);
    JsonPreferenceStore again(file());
    EXPECT_EQ(again.integerOr("kept", 0), 1);
    EXPECT_EQ(again.integerOr("new", 0), 2);
}

TEST_F(JsonPreferenceStoreTest, anotherStoresChangesAreSeenAndNeverUndone) {
    JsonPreferenceStore one(file());
    JsonPreferenceStore other(file());
    ThreadQueue queue("velmora.test");
    std::promise<void> told;
    auto observation = other.observe(queue, [&](const std::string& key) {
        if (key == "theirs" && other.integerOr("theirs", 0) == 5) told.set_value();
    });
    one.set("theirs", std::int64_t{5});
    ASSERT_EQ(told.get_future().wait_for(10s), std::future_status::ready);
    other.set("mine", true);
    other.flush();
    JsonPreferenceStore third(file());
    EXPECT_EQ(third.integerOr("theirs", 0), 5);
    EXPECT_TRUE(third.boolOr("mine", false));
    queue.runSync([&] { observation.reset(); });
}

TEST_F(JsonPreferenceStoreTest, twoProcessesWritingAtOnceLoseNothing) {
    constexpr int count = 60;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    const std::string prefix = child == 0 ? "child" : "parent";
    {
        JsonPreferenceStore store(file());
        for (int i = 0; i < count; ++i) {
            store.set(prefix + std::to_string(i), std::int64_t{i});
            if (i % 7 == 0) store.flush();
        }
    }
    if (child == 0) ::_exit(0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    JsonPreferenceStore store(file());
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(store.integerOr("child" + std::to_string(i), -1), i);
        EXPECT_EQ(store.integerOr("parent" + std::to_string(i), -1), i);
    }
}

TEST_F(JsonPreferenceStoreTest, aPlaceThatCannotBeWrittenKeepsValuesInMemoryAndSaysSoOnce) {
    const auto blocked = file().parent_path().parent_path() / "file";
    std::ofstream(blocked) << "not a folder";
    JsonPreferenceStore store(blocked / "preferences.json");
    store.set("a", true);
    store.flush();
    store.set("b", true);
    store.flush();
    EXPECT_TRUE(store.boolOr("a", false));
    EXPECT_LE(DebugLog::shared().entries().size(), 2u);
    EXPECT_GE(DebugLog::shared().entries().size(), 1u);
}

TEST_F(JsonPreferenceStoreTest, aLinkSetUpByTheUserStaysALink) {
    std::filesystem::create_directories(file().parent_path());
    const auto target = file().parent_path() / "elsewhere.json";
    std::ofstream(target) << R"({"a": true})";
    std::filesystem::create_symlink(target, file());
    {
        JsonPreferenceStore store(file());
        EXPECT_TRUE(store.boolOr("a", false));
        store.set("b", true);
    }
    EXPECT_TRUE(std::filesystem::is_symlink(file()));
    JsonPreferenceStore again(target);
    EXPECT_TRUE(again.boolOr("b", false));
}

}  // namespace
}  // namespace velmora
