#include "VelmoraKit/Wire/RendezvousMessages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace velmora::rendezvous {
namespace {

using Json = nlohmann::json;

const HostCandidates candidates{.addresses = {"192.0.2.10:47272", "10.0.0.5:47272"},
                                .port = 47272,
                                .quic = true,
                                .fingerprint = "AB01",
                                .mapped = "198.51.100.7:40001"};

/// A message with every key, its text written by hand, and what must be there.
template <class Any>
struct Sample {
    Any message;
    const char* text;
    std::vector<std::string> required{};
};

const std::vector<Sample<FromClient>> fromClients{
    {HostCreate{.hostId = "123456789", .password = "042137", .hostname = "Zoë's Mac"},
     R"({"type":"host_create","hostId":"123456789","password":"042137","hostname":"Zoë's Mac",
         "available":true})",
     {"hostId", "password"}},
    {HostAvailability{}, R"({"type":"host_availability","available":false})"},
    {Hangup{}, R"({"type":"hangup"})"},
    {Accept{.clientId = "c7", .candidates = candidates},
     R"({"type":"accept","clientId":"c7","candidates":{"addresses":["192.0.2.10:47272","10.0.0.5:47272"],
         "port":47272,"quic":true,"fingerprint":"AB01","mapped":"198.51.100.7:40001"}})",
     {"clientId", "candidates"}},
    {Reject{.message = "No."}, R"({"type":"reject","message":"No."})"},
    {Join{.id = "123456789", .password = "042137", .clientName = "Desk", .deviceId = "A1", .agent = true},
     R"({"type":"join","id":"123456789","password":"042137","clientName":"Desk","deviceId":"A1",
         "agent":true})",
     {"id", "password"}},
    {ViewerCandidates{.mapped = "203.0.113.5:50123"},
     R"({"type":"candidates","candidates":{"mapped":"203.0.113.5:50123"}})",
     {"candidates"}},
};

const std::vector<Sample<ToClient>> toClients{
    {SessionCreated{.id = "123456789", .publicAddress = "198.51.100.7"},
     R"({"type":"session_created","id":"123456789","publicAddress":"198.51.100.7"})"},
    {JoinRequest{.clientId = "c7", .clientName = "Desk", .clientAddress = "203.0.113.5", .agent = false},
     R"({"type":"join_request","clientId":"c7","clientName":"Desk","clientAddress":"203.0.113.5",
         "agent":false})",
     {"clientId"}},
    {Accepted{.sessionToken = "s3cret",
              .clientId = "c7",
              .hostCandidates = candidates,
              .relay = RelayOffer(Relay{"relay.example", 3479, "tok"})},
     R"({"type":"accepted","sessionToken":"s3cret","clientId":"c7","hostCandidates":{
         "addresses":["192.0.2.10:47272","10.0.0.5:47272"],"port":47272,"quic":true,"fingerprint":"AB01",
         "mapped":"198.51.100.7:40001"},"relay":{"host":"relay.example","port":3479,"token":"tok"}})"},
    {ViewerCandidates{.mapped = "203.0.113.5:50123"},
     R"({"type":"candidates","candidates":{"mapped":"203.0.113.5:50123"}})",
     {"candidates"}},
    {SecurityNotice{.message = "Careful."}, R"({"type":"security_notice","message":"Careful."})"},
    {AdminKick{.message = "Out."}, R"({"type":"admin_kick","message":"Out."})"},
    {PeerLeft{}, R"({"type":"peer_left"})"},
    {Error{.message = "Taken", .code = "busy"}, R"({"type":"error","message":"Taken","code":"busy"})"},
    {JoinPending{.hostname = "Studio"}, R"({"type":"join_pending","hostname":"Studio"})"},
    {Rejected{.message = "No.", .code = "remote_off"},
     R"({"type":"rejected","message":"No.","code":"remote_off"})"},
};

template <class Any, class Decode>
void expectEachTravels(const std::vector<Sample<Any>>& samples, Decode decode) {
    for (const auto& sample : samples) {
        EXPECT_EQ(Json::parse(encode(sample.message)), Json::parse(sample.text));
        EXPECT_EQ(decode(sample.text), sample.message) << sample.text;
    }
}

/// Each key taken out, then given a value of no use: only what is required makes the message none at all.
template <class Any, class Decode>
void expectLenience(const std::vector<Sample<Any>>& samples, Decode decode) {
    for (const auto& sample : samples) {
        const Json whole = Json::parse(sample.text);
        for (const auto& [key, value] : whole.items()) {
            const bool needed = key == "type" || std::ranges::count(sample.required, key) > 0;
            Json without = whole;
            without.erase(key);
            Json broken = whole;
            broken[key] = 7;
            EXPECT_EQ(decode(without.dump()).has_value(), !needed) << without;
            EXPECT_EQ(decode(broken.dump()), decode(without.dump())) << broken;
        }
        Json more = whole;
        more["unknown"] = {1, 2};
        EXPECT_EQ(decode(more.dump()), sample.message);
    }
}

TEST(RendezvousMessagesTest, eachMessageIsTheObjectOfItsFormat) {
    expectEachTravels(fromClients, decodeFromClient);
    expectEachTravels(toClients, decodeToClient);
}

TEST(RendezvousMessagesTest, whatIsMissingOrOfTheWrongTypeHasItsDefaultUnlessItIsRequired) {
    expectLenience(fromClients, decodeFromClient);
    auto others = toClients;
    std::erase_if(others,
                  [](const auto& sample) { return std::holds_alternative<Accepted>(sample.message); });
    others.push_back({Accepted{.sessionToken = "s", .clientId = "c7", .hostCandidates = candidates},
                      R"({"type":"accepted","sessionToken":"s","clientId":"c7","hostCandidates":{
                          "addresses":["192.0.2.10:47272","10.0.0.5:47272"],"port":47272,"quic":true,
                          "fingerprint":"AB01","mapped":"198.51.100.7:40001"}})"});
    expectLenience(others, decodeToClient);  // a broken relay is still an offer, see below

    const auto request = decodeToClient(R"({"type":"join_request","clientId":"c7","clientName":null})");
    ASSERT_TRUE(request);
    EXPECT_EQ(*request, ToClient(JoinRequest{.clientId = "c7", .clientName = "Mac", .clientAddress = "?"}));
    EXPECT_EQ(decodeToClient(R"({"type":"security_notice"})"),
              ToClient(SecurityNotice{.message = "Suspicious activity for this Mac's ID."}));
    EXPECT_EQ(decodeToClient(R"({"type":"admin_kick"})"),
              ToClient(AdminKick{.message = "Viewer disconnected by the administrator"}));
    // One address that is none spoils the list, not the message.
    const auto accept = decodeFromClient(
        R"({"type":"accept","clientId":"c","candidates":{"addresses":["a",1],"quic":true}})");
    ASSERT_TRUE(accept);
    EXPECT_EQ(std::get<Accept>(*accept).candidates, HostCandidates{.quic = true});
}

TEST(RendezvousMessagesTest, aRelayIsUsableOnlyWholeAndWithAPortOfUdp) {
    const auto offer = [](const char* relay) {
        const auto message = decodeToClient(std::string(R"({"type":"accepted","relay":)") + relay + "}");
        return std::get<Accepted>(message.value()).relay;
    };
    EXPECT_EQ(offer(R"({"host":"r","port":3479,"token":"t"})")->relay(), (Relay{"r", 3479, "t"}));
    EXPECT_EQ(offer(R"({"host":"r","port":3479.0,"token":"t"})")->relay(), (Relay{"r", 3479, "t"}));
    for (const char* incomplete :
         {R"({"host":"r","port":1})", R"({"host":"r","token":"t"})", "{}", "5",
          R"({"host":"r","port":"1","token":"t"})", R"({"host":"r","port":1.5,"token":"t"})"}) {
        ASSERT_TRUE(offer(incomplete)) << "the key is there: " << incomplete;
        EXPECT_FALSE(offer(incomplete)->isComplete()) << incomplete;
        EXPECT_FALSE(offer(incomplete)->relay()) << incomplete;
    }
    for (const char* impossible :
         {R"({"host":"r","port":65536,"token":"t"})", R"({"host":"r","port":-1,"token":"t"})"}) {
        EXPECT_TRUE(offer(impossible)->isComplete());
        EXPECT_FALSE(offer(impossible)->relay());
    }
    EXPECT_FALSE(offer("null"));
}

TEST(RendezvousMessagesTest, refusesWhatIsNoMessage) {
    for (const char* text : {"", "{", "[]", "7", R"("hangup")", "{}", R"({"type":5})", R"({"type":"what"})",
                             R"({"type":"candidates","candidates":{}})",
                             R"({"type":"candidates","candidates":"203.0.113.5:1"})"}) {
        EXPECT_FALSE(decodeFromClient(text)) << text;
        EXPECT_FALSE(decodeToClient(text)) << text;
    }
    EXPECT_FALSE(decodeToClient(R"({"type":"join","id":"1","password":"2"})")) << "of the other direction";
    const auto ofSize = [](std::size_t size) {
        std::string text = R"({"type":"hangup","x":""})";
        text.insert(text.size() - 2, size - text.size(), 'x');
        return text;
    };
    EXPECT_TRUE(decodeFromClient(ofSize(65536)));
    EXPECT_FALSE(decodeFromClient(ofSize(65537)));
}

TEST(RendezvousMessagesTest, badTextIsRepairedOnItsWayOut) {
    EXPECT_EQ(encode(FromClient(Reject{.message = "a\xFFz"})), R"({"message":"a�z","type":"reject"})");
}

}  // namespace
}  // namespace velmora::rendezvous
