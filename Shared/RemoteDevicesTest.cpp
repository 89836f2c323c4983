#include "Shared/RemoteDevices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Shared/Preferences.h"
#include "Testing/FakeHttpClient.h"
#include "Testing/FakeMachineInfo.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeSecretStore.h"
#include "Testing/FakeServiceDiscovery.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using Json = nlohmann::json;
using Availability = RemoteDevices::Availability;
using Status = RemoteDevices::Status;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class RemoteDevicesTest : public testing::Test {
protected:
    void start() {
        devices = std::make_unique<RemoteDevices>(
            RemoteDevices::Services{.preferences = preferences,
                                    .keychain = keychain,
                                    .discovery = network,
                                    .http = http,
                                    .main = main,
                                    .worker = worker,
                                    .rendezvous = *SignalingUrl::parse("wss://rendezvous.example")});
        observation = devices->observe([this] { ++changes; });
        time.settle();
    }
    void restart() {
        devices.reset();
        start();
    }
    void advertise(const std::string& name, ServiceDiscovery::TxtRecord txt = {}) {
        advertised.push_back(network.publish({name, "_velmora._udp", 47272, std::move(txt)}, main, nullptr));
        time.settle();
    }
    std::string add(const std::string& name, std::string_view hostID, std::string_view password = "042137") {
        const auto device = devices->add(name, hostID, password);
        time.settle();
        return device ? device->id : "";
    }
    const RemoteDevices::Device& only() const {
        EXPECT_EQ(devices->devices().size(), 1u);
        return devices->devices().at(0);
    }
    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& device : devices->devices()) names.push_back(device.name);
        return names;
    }
    std::optional<std::string> passwordOf(const std::string& id) {
        return keychain.read("com.velmora.devices", id);
    }
    void answer(const std::string& body) {
        http.answer(http.requests.size() - 1, body);
        time.settle();
    }
    static RemoteDevices::Target hostId(const std::string& digits) { return RemoteDevices::HostId{digits}; }
    static Endpoint serviceOf(const std::string& name) {
        return Endpoint::service(name, "_velmora._udp", "local");
    }

    VirtualTime time;
    VirtualQueue main{time, "main"}, worker{time, "worker"};
    FakePreferenceStore preferences;
    FakeSecretStore secrets;
    Keychain keychain{secrets};
    FakeServiceDiscovery network;
    FakeHttpClient http;
    std::vector<std::unique_ptr<ServiceDiscovery::Request>> advertised;
    std::unique_ptr<RemoteDevices> devices;
    ObserverList::Token observation;
    int changes = 0;
};

TEST_F(RemoteDevicesTest, savesAMachineByTheDigitsOfItsIdAndPassword) {
    start();
    const auto id = add("Studio", "123 456 789", "04-21-37");
    EXPECT_EQ(only(), (RemoteDevices::Device{.id = id,
                                             .name = "Studio",
                                             .target = hostId("123456789"),
                                             .isSaved = true,
                                             .availability = Availability::unknown}));
    EXPECT_EQ(passwordOf(id), "042137");
    EXPECT_EQ(secrets.labelOf({"com.velmora.devices", id}), "Velmora password for Studio");

    EXPECT_EQ(add("Short", "12345678"), "");
    EXPECT_EQ(add("Long", "1234567890"), "");
    EXPECT_EQ(add("NoPassword", "987654321", "12345"), "");
    EXPECT_EQ(devices->devices().size(), 1u);
    add("", "987654321");
    EXPECT_THAT(names(), ElementsAre("987 654 321", "Studio"));
}

TEST_F(RemoteDevicesTest, addingAKnownMachineReplacesOnlyItsPassword) {
    start();
    const auto id = add("Studio", "123456789");
    EXPECT_EQ(add("Other", "123456789", "999999"), id);
    EXPECT_EQ(only().name, "Studio");
    EXPECT_EQ(passwordOf(id), "999999");
}

TEST_F(RemoteDevicesTest, keepsTheSavedOnesUntilTheyAreRemoved) {
    start();
    const auto id = add("Studio", "123456789");
    add("Mini", "987654321");
    const auto stored = Json::parse(textOf(*preferences.getAs<Bytes>("remoteDevices.saved")));
    EXPECT_EQ(stored.at(0), (Json{{"id", id}, {"name", "Studio"}, {"address", ""}, {"hostID", "123456789"}}));
    restart();
    EXPECT_THAT(names(), ElementsAre("Mini", "Studio"));
    devices->remove(devices->devices()[1]);
    time.settle();
    EXPECT_THAT(names(), ElementsAre("Mini"));
    EXPECT_EQ(passwordOf(id), std::nullopt);
    restart();
    EXPECT_THAT(names(), ElementsAre("Mini"));
}

TEST_F(RemoteDevicesTest, readsOnlyWhatIsAListOfMachinesWithHostIds) {
    preferences.set("remoteDevices.saved", bytesOf(R"([
        {"id":"A","name":"Old","address":"10.0.0.5"},
        {"id":"B","name":"New","address":"","hostID":"123456789"}])"));
    start();
    EXPECT_THAT(names(), ElementsAre("New"));
    preferences.set("remoteDevices.saved", bytesOf(R"([{"id":"B","name":7,"address":""}])"));
    restart();
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(RemoteDevicesTest, listsWhatIsOnTheNetwork) {
    advertise("Studio", {{"id", "123456789"}, {"fp", "AB01"}, {"kind", "macstudio"}});
    advertise("Book", {{"id", "12345678"}, {"kind", "toaster"}});
    start();
    ASSERT_THAT(names(), ElementsAre("Book", "Studio"));
    EXPECT_EQ(devices->devices()[0], (RemoteDevices::Device{.id = "bonjour:Book",
                                                            .name = "Book",
                                                            .target = serviceOf("Book"),
                                                            .availability = Availability::online,
                                                            .lanEndpoint = serviceOf("Book")}));
    EXPECT_EQ(devices->devices()[1], (RemoteDevices::Device{.id = "bonjour:Studio",
                                                            .name = "Studio",
                                                            .target = hostId("123456789"),
                                                            .fingerprint = "AB01",
                                                            .availability = Availability::online,
                                                            .kind = MacKind::macstudio,
                                                            .lanEndpoint = serviceOf("Studio")}));
    EXPECT_EQ(preferences.string("macKind:Studio"), "macstudio");

    preferences.set("knownHost:Book._velmora._udp.local", std::string("CD02"));
    devices->remove(devices->devices()[0]);
    EXPECT_EQ(preferences.get("knownHost:Book._velmora._udp.local"), std::nullopt);
    advertised.clear();
    time.settle();
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(RemoteDevicesTest, aSavedMachineThatIsAlsoFoundAppearsOnceUnderItsSavedName) {
    start();
    const auto id = add("My Studio", "123456789");
    advertise("Studio", {{"id", "123456789"}, {"fp", "AB01"}, {"kind", "macstudio"}});
    EXPECT_EQ(only(), (RemoteDevices::Device{.id = id,
                                             .name = "My Studio",
                                             .target = hostId("123456789"),
                                             .isSaved = true,
                                             .fingerprint = "AB01",
                                             .availability = Availability::online,
                                             .kind = MacKind::macstudio,
                                             .lanEndpoint = serviceOf("Studio")}));
    advertised.clear();
    time.settle();
    EXPECT_EQ(only().availability, Availability::unknown);
    EXPECT_EQ(only().lanEndpoint, std::nullopt);
}

TEST_F(RemoteDevicesTest, doesNotListThisMachineWhileItAdvertises) {
    advertise("Me");
    advertise("Other");
    start();
    EXPECT_THAT(names(), ElementsAre("Me", "Other"));
    devices->ownName = "Me";
    devices->rebuild();
    EXPECT_THAT(names(), ElementsAre("Other"));

    advertised.clear();
    devices->ownHostID = "123456789";
    advertise("Me", {{"id", "987654321"}});  // was there first
    advertise("Me #2", {{"id", "123456789"}});
    EXPECT_THAT(names(), ElementsAre("Me"));
}

TEST_F(RemoteDevicesTest, foundOnesStandAboveSavedOnesEachInTheOrderOfNames) {
    start();
    for (const auto& [name, id] : {std::pair{"zebra", "100000001"},
                                   {"Apfel", "100000002"},
                                   {"Ärger", "100000003"},
                                   {"äpfel", "100000004"}}) {
        add(name, id);
    }
    advertise("beta");
    advertise("Alpha");
    EXPECT_THAT(names(), ElementsAre("Alpha", "beta", "Apfel", "äpfel", "Ärger", "zebra"));
}

TEST_F(RemoteDevicesTest, tellsOnlyOfRealChanges) {
    start();
    add("Studio", "123456789");
    changes = 0;
    devices->rebuild();
    add("Studio", "123456789");
    EXPECT_EQ(changes, 0);
    advertise("Other");
    EXPECT_EQ(changes, 1);
    devices->refreshStatus();
    time.settle();
    answer(R"({"devices":[{"id":"123456789","locked":true}]})");
    EXPECT_EQ(changes, 2) << "the list is the same, the status is not";
    answer(R"({"devices":[{"id":"123456789","locked":true}]})");
    EXPECT_EQ(changes, 2);
}

TEST_F(RemoteDevicesTest, asksTheServiceWhoIsOnline) {
    start();
    devices->refreshStatus();
    time.settle();
    EXPECT_THAT(http.requests, IsEmpty()) << "nobody to ask about";
    const auto a = add("A", "100000001", "111111"), b = add("B", "100000002", "222222"),
               c = add("C", "100000003", "333333"), d = add("D", "100000004", "444444");
    const auto& request = http.requests.back();
    EXPECT_EQ(request.url, "https://rendezvous.example/devices");
    EXPECT_EQ(request.contentType, "application/json");
    EXPECT_EQ(request.timeout, std::chrono::seconds(8));
    const auto body = Json::parse(textOf(request.body));
    EXPECT_EQ(body.at("devices").size(), 4u);
    EXPECT_EQ(body.at("devices")[1], (Json{{"id", "100000002"}, {"password", "222222"}}));

    answer(R"({"devices":[{"id":"100000001","online":true},
                          {"id":"100000002","online":true,"passwordChanged":true},
                          {"id":"100000003","online":true,"passwordChanged":true,"locked":true},
                          {"id":"100000004"}]})");
    EXPECT_THAT(devices->status(),
                testing::UnorderedElementsAre(Pair(a, Status::online), Pair(b, Status::wrongPassword),
                                              Pair(c, Status::locked), Pair(d, Status::offline)));
    EXPECT_EQ(devices->devices()[0].availability, Availability::online);
    EXPECT_EQ(devices->devices()[1].availability, Availability::unknown);
    EXPECT_EQ(devices->devices()[2].availability, Availability::unknown);
    EXPECT_EQ(devices->devices()[3].availability, Availability::offline);
}

TEST_F(RemoteDevicesTest, anAnswerOfNoUseChangesNothing) {
    start();
    const auto id = add("A", "100000001");
    answer(R"({"devices":[{"id":"100000001","online":true}]})");
    for (const char* useless : {"", "[]", "{}", R"({"devices":7})", R"({"devices":[7,null,{"online":false},
             {"id":5,"online":false},{"id":"999999999","online":true}]})"}) {
        answer(useless);
        EXPECT_THAT(devices->status(), ElementsAre(Pair(id, Status::online))) << useless;
    }
    http.fail(0);
    EXPECT_THAT(devices->status(), ElementsAre(Pair(id, Status::online)));
    devices.reset();
    answer(R"({"devices":[]})");
}

TEST_F(RemoteDevicesTest, aMachineWithoutAPasswordIsNotAskedAbout) {
    start();
    add("A", "100000001");
    const auto asked = http.requests.size();
    secrets.setLocked(true);
    devices->refreshStatus();
    time.settle();
    EXPECT_EQ(http.requests.size(), asked);
}

TEST(EndpointForTest, readsHostAndPortFromWhatPeopleType) {
    const auto expect = [](std::string_view text, const std::string& host, std::uint16_t port) {
        EXPECT_EQ(RemoteDevices::endpointFor(text), Endpoint::hostPort(host, port)) << text;
    };
    expect("10.0.0.5:6000", "10.0.0.5", 6000);
    expect("10.0.0.5", "10.0.0.5", 47272);
    expect("10.0.0.5:abc", "10.0.0.5:abc", 47272);
    expect("10.0.0.5:65536", "10.0.0.5:65536", 47272);
    expect("10.0.0.5:60x", "10.0.0.5:60x", 47272);
    expect("10.0.0.5:", "10.0.0.5:", 47272);
    expect("[::1]:6000", "[::1]:6000", 47272);
    expect("::1", "::1", 47272);
    expect("mini.local:65535", "mini.local", 65535);
    expect("", "", 47272);
}

TEST(MacKindTest, theFirstModelNameThatFitsWins) {
    EXPECT_EQ(macKindForModelName("MacBook Pro"), MacKind::macbook);
    EXPECT_EQ(macKindForModelName("iMac Pro"), MacKind::imac);
    EXPECT_EQ(macKindForModelName("Mac mini"), MacKind::macmini);
    EXPECT_EQ(macKindForModelName("Mac Studio"), MacKind::macstudio);
    EXPECT_EQ(macKindForModelName("Mac Pro"), MacKind::macpro);
    EXPECT_EQ(macKindForModelName(""), MacKind::mac);
}

TEST(MacKindTest, isFoundOnceAndKeptUnlessTheMachineDoesNotTell) {
    FakePreferenceStore preferences;
    FakeMachineInfo machine;
    EXPECT_EQ(thisMacKind(preferences, machine), MacKind::mac);
    EXPECT_EQ(preferences.get("macKind"), std::nullopt);
    machine.machineKind = MacKind::imac;
    EXPECT_EQ(thisMacKind(preferences, machine), MacKind::imac);
    machine.machineKind = MacKind::macpro;
    EXPECT_EQ(thisMacKind(preferences, machine), MacKind::imac);
    preferences.set(PreferenceKeys::macKind, std::string("toaster"));
    EXPECT_EQ(thisMacKind(preferences, machine), MacKind::macpro);
    EXPECT_EQ(preferences.string("macKind"), "macpro");
}

}  // namespace
}  // namespace velmora
