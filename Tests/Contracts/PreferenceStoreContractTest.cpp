#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/ScratchFolder.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

struct FakeFixture {
    FakePreferenceStore store;
};
struct JsonFixture {
    ScratchFolder folder;
    JsonPreferenceStore store{folder / "preferences.json"};
};

template <class Fixture>
class PreferenceStoreContract : public testing::Test {
protected:
    PreferenceStore& store() { return fixture_.store; }

private:
    Fixture fixture_;
};
using Fixtures = testing::Types<FakeFixture, JsonFixture>;
TYPED_TEST_SUITE(PreferenceStoreContract, Fixtures);

TYPED_TEST(PreferenceStoreContract, valuesKeepTheirTypeAndAreReadBackAtOnce) {
    PreferenceStore& store = this->store();
    const std::vector<PreferenceValue> values{
        true,
        false,
        std::int64_t{1},
        std::numeric_limits<std::int64_t>::min(),
        std::numeric_limits<std::int64_t>::max(),
        1.0,
        0.1,
        std::numeric_limits<double>::infinity(),
        std::string("1"),
        std::string("ÄÖ \" \n \u0001 🖥"),
        std::string(),
        Bytes{},
        Bytes{0, 255, 16},
        PreferenceDate(1'790'000'000'123ms),
    };
    for (const auto& value : values) {
        store.set("key", value);
        EXPECT_EQ(store.get("key"), value) << value.index();
    }
    store.set("key", std::numeric_limits<double>::quiet_NaN());
    EXPECT_TRUE(std::isnan(store.template getAs<double>("key").value()));
    store.flush();
    store.remove("key");
    EXPECT_EQ(store.get("key"), std::nullopt);
    store.remove("key");
    store.flush();
}

TYPED_TEST(PreferenceStoreContract, aValueOfAnotherTypeReadsAsTheDefault) {
    PreferenceStore& store = this->store();
    store.set("sound", std::string("no"));
    EXPECT_TRUE(store.boolOr("sound", true));
    store.set("mbps", 7.0);
    EXPECT_EQ(store.integerOr("mbps", 6), 6);
    store.set("mbps", std::int64_t{0});
    EXPECT_EQ(store.integerOr("mbps", 6), 0);
    EXPECT_EQ(store.string("mbps"), std::nullopt);
}

TYPED_TEST(PreferenceStoreContract, observersHearEveryChangeOnTheirQueueUntilTheyEnd) {
    PreferenceStore& store = this->store();
    ThreadQueue queue("velmora.test");
    std::vector<std::string> heard;
    auto observation = store.observe(queue, [&](const std::string& key) {
        EXPECT_TRUE(queue.isCurrent());
        heard.push_back(key);
    });
    store.set("a", true);
    store.set("a", true);
    store.set("b", std::int64_t{1});
    store.remove("a");
    store.remove("never set");
    store.flush();
    queue.runSync([] {});
    EXPECT_EQ(heard, (std::vector<std::string>{"a", "b", "a"}));

    queue.runSync([&] {
        store.set("a", false);
        observation.reset();  // with the news already posted
    });
    queue.runSync([] {});
    EXPECT_EQ(heard.size(), 3u);
}

TYPED_TEST(PreferenceStoreContract, anyThreadMayReadAndWrite) {
    PreferenceStore& store = this->store();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&store, t] {
            const auto key = "key" + std::to_string(t);
            for (std::int64_t i = 1; i <= 200; ++i) {
                store.set(key, i);
                EXPECT_EQ(store.integerOr(key, 0), i);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    store.flush();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(store.integerOr("key" + std::to_string(t), 0), 200);
}

}  // namespace
}  // namespace velmora
