#include "Rendezvous/RelayTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

UdpAddress place(std::uint8_t lastByte, std::uint16_t port) {
    return {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, lastByte}, port};
}

struct Sent {
    UdpAddress to;
    std::string bytes;
    bool operator==(const Sent&) const = default;
};

class RelayTableTest : public testing::Test {
protected:
    RelayTableTest() {
        parameters.ports = {4000, 4001};
        parameters.bytesPerSecond = 10'000;
        parameters.burst = 10'000;
        parameters.silentBytes = 3'000;
        restart();
    }
    void restart() { table = std::make_unique<RelayTable>(parameters); }

    RelayTable::Ticket issue(std::string_view hostId = "123456789") {
        return table->issue(hostId, now).value();
    }
    std::vector<Sent> send(std::uint16_t port, const UdpAddress& from, std::string_view bytes,
                           std::size_t segmentSize = 65'536) {
        std::vector<RelayTable::Departure> out;
        table->receive(port - parameters.ports[0], {from, ours, viewOf(bytes), segmentSize}, now, out);
        std::vector<Sent> sent;
        for (const auto& departure : out) {
            EXPECT_EQ(departure.local, ours);
            sent.push_back({departure.to, textOf(departure.bytes)});
        }
        return sent;
    }
    std::vector<Sent> enrol(const RelayTable::Ticket& ticket, const UdpAddress& from) {
        return send(ticket.port, from, "VLREG" + ticket.token);
    }
    /// A session in which both have spoken.
    RelayTable::Ticket meet(const UdpAddress& a, const UdpAddress& b, std::string_view hostId = "123456789") {
        const auto ticket = issue(hostId);
        enrol(ticket, a);
        enrol(ticket, b);
        EXPECT_TRUE(areJoined(ticket.port, a, b));
        return ticket;
    }
    bool areJoined(std::uint16_t port, const UdpAddress& a, const UdpAddress& b) {
        return send(port, a, "hello") == std::vector<Sent>{{b, "hello"}} &&
               send(port, b, "there") == std::vector<Sent>{{a, "there"}};
    }

    RelayTable::Parameters parameters;
    std::unique_ptr<RelayTable> table;
    RelayTable::Time now{1'000s};
    const IpAddress ours{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 203, 0, 113, 5};
    const UdpAddress host = place(1, 47272);
    const UdpAddress viewer = place(2, 50001);
    const UdpAddress stranger = place(3, 50001);
};

TEST_F(RelayTableTest, joinsTheTwoThatKnowTheToken) {
    const auto ticket = issue();
    EXPECT_THAT(enrol(ticket, host), ElementsAre(Sent{host, "VLACK"}));
    EXPECT_THAT(send(ticket.port, host, "early"), IsEmpty());
    EXPECT_THAT(enrol(ticket, viewer), ElementsAre(Sent{viewer, "VLACK"}));
    EXPECT_TRUE(areJoined(ticket.port, viewer, host));
    EXPECT_THAT(enrol(ticket, host), ElementsAre(Sent{host, "VLACK"}));  // it repeats itself
    EXPECT_TRUE(areJoined(ticket.port, viewer, host));
    EXPECT_THAT(send(ticket.port, stranger, "hello"), IsEmpty());
    const std::uint16_t otherPort = ticket.port == 4000 ? 4001 : 4000;
    EXPECT_THAT(send(otherPort, viewer, "hello"), IsEmpty());
}

TEST_F(RelayTableTest, onlyATokenInItsTimeRegisters) {
    const auto ticket = issue();
    const std::uint16_t otherPort = ticket.port == 4000 ? 4001 : 4000;
    std::string changed = ticket.token;
    changed.back() = changed.back() == '0' ? '1' : '0';
    for (const std::string& text : {std::string(), changed, ticket.token.substr(1), ticket.token + "0",
                                    std::string(32, 'G'), std::string(32, '\0')}) {
        EXPECT_THAT(send(ticket.port, stranger, "VLREG" + text), IsEmpty()) << text;
    }
    EXPECT_THAT(send(ticket.port, stranger, "vlreg" + ticket.token), IsEmpty());
    EXPECT_THAT(send(otherPort, stranger, "VLREG" + ticket.token), IsEmpty());
    enrol(ticket, viewer);
    EXPECT_THAT(send(ticket.port, viewer, "hello"), IsEmpty());  // none of them is the other side
    EXPECT_EQ(table->counts().forged, 7u);

    now += parameters.tokenLifetime + 1s;
    EXPECT_THAT(enrol(ticket, host), IsEmpty());
    EXPECT_NE(issue("987654321").token, issue("987654321").token);
}

TEST_F(RelayTableTest, aRunningSessionCannotBeTakenOver) {
    const auto ticket = meet(host, viewer);
    EXPECT_THAT(enrol(ticket, stranger), IsEmpty());
    parameters.ports = {4000};
    restart();
    const auto running = meet(host, viewer);
    const auto other = issue("987654321");
    EXPECT_THAT(enrol(other, host), IsEmpty());  // with a sender that is not its own
    enrol(other, stranger);
    EXPECT_TRUE(areJoined(running.port, host, viewer));
    EXPECT_EQ(table->counts().refused, 1u);

    now += parameters.liveLimit + 1s;
    EXPECT_THAT(enrol(other, host), ElementsAre(Sent{host, "VLACK"}));
    EXPECT_TRUE(areJoined(other.port, host, stranger));
    EXPECT_THAT(send(running.port, viewer, "hello"), IsEmpty());
}

TEST_F(RelayTableTest, followsASideWhoseAddressChangedBeforeTheSessionRan) {
    const auto ticket = issue();
    enrol(ticket, host);
    now += 1s;
    enrol(ticket, viewer);
    now += 1s;
    const UdpAddress moved = place(1, 1'234);
    EXPECT_THAT(enrol(ticket, moved), ElementsAre(Sent{moved, "VLACK"}));
    EXPECT_TRUE(areJoined(ticket.port, moved, viewer));
    EXPECT_THAT(send(ticket.port, host, "hello"), IsEmpty());
}

TEST_F(RelayTableTest, eachSessionOfAHostHasItsOwnPort) {
    const auto first = meet(host, viewer);
    const auto unused = issue();
    EXPECT_NE(unused.port, first.port);
    const auto second = issue();  // no viewer came for the one before
    EXPECT_EQ(second.port, unused.port);
    EXPECT_THAT(enrol(unused, host), IsEmpty());
    enrol(second, host);
    enrol(second, stranger);
    EXPECT_TRUE(areJoined(second.port, host, stranger));
    EXPECT_TRUE(areJoined(first.port, host, viewer));
    EXPECT_FALSE(table->issue("123456789", now));
    EXPECT_TRUE(table->issue("987654321", now));

    now += parameters.liveLimit + 1s;
    areJoined(first.port, host, viewer);
    EXPECT_EQ(issue().port, second.port);  // which fell silent
    EXPECT_TRUE(areJoined(first.port, host, viewer));
}

TEST_F(RelayTableTest, anAddressThatStaysSilentIsSentLittle) {
    const auto ticket = issue();
    enrol(ticket, host);
    enrol(ticket, viewer);
    const std::string packet(1'200, 'x');
    std::size_t reached = 0;
    for (int i = 0; i < 10; ++i) {
        now += 1s;
        reached += send(ticket.port, viewer, packet).size();
    }
    EXPECT_EQ(reached, parameters.silentBytes / packet.size());
    send(ticket.port, host, "answer");
    EXPECT_THAT(send(ticket.port, viewer, packet), ElementsAre(Sent{host, packet}));
}

TEST_F(RelayTableTest, dropsWhatIsOverTheRateOfThePair) {
    const auto ticket = meet(host, viewer);
    now += 2s;  // the burst is full again
    std::string run;
    for (const char c : std::string("abcdefghijkl")) run += std::string(960, c);  // costs 1,000 each
    run += "tail";
    EXPECT_THAT(send(ticket.port, host, run, 960), ElementsAre(Sent{viewer, run.substr(0, 9'600)}));
    EXPECT_THAT(send(ticket.port, viewer, "x"), IsEmpty());
    now += 100ms;
    EXPECT_THAT(send(ticket.port, host, run, 960), ElementsAre(Sent{viewer, run.substr(0, 960)}));
    EXPECT_EQ(table->counts().limited, 3u + 1u + 12u);
    const auto other = meet(place(1, 1), place(2, 2), "987654321");  // has a rate of its own
    EXPECT_NE(other.token, ticket.token);
}

TEST_F(RelayTableTest, takesARegistrationOutOfARun) {
    const auto ticket = meet(host, viewer);
    const std::string registration = "VLREG" + ticket.token;
    const std::string data(registration.size(), 'd');
    const std::vector<Sent> expected{{viewer, data}, {host, "VLACK"}, {viewer, "e"}};
    EXPECT_EQ(send(ticket.port, host, data + registration + "e", registration.size()), expected);
    const std::string larger(100, 'D');
    EXPECT_THAT(send(ticket.port, host, larger + registration, larger.size()),
                ElementsAre(Sent{viewer, larger}, Sent{host, "VLACK"}));
    EXPECT_THAT(send(ticket.port, host, ""), ElementsAre(Sent{viewer, ""}));
}

TEST_F(RelayTableTest, isBoundedAndForgets) {
    parameters.maximumPairs = 3;
    parameters.sidesPerSource = 2;
    restart();
    const auto running = meet(place(1, 1), place(2, 1), "1");
    const auto half = issue("2");
    EXPECT_THAT(enrol(half, place(1, 2)), testing::SizeIs(1));
    const auto third = issue("3");
    EXPECT_THAT(enrol(third, place(1, 3)), IsEmpty());  // the third of one address
    EXPECT_FALSE(table->issue("4", now));

    now += parameters.tokenLifetime + 1s;
    send(running.port, place(1, 1), "still here");
    table->expire(now);
    EXPECT_EQ(table->counts().pairs, 1u);
    EXPECT_THAT(enrol(issue("4"), place(1, 3)), testing::SizeIs(1));
    EXPECT_TRUE(areJoined(running.port, place(1, 1), place(2, 1)));

    now += parameters.idleLimit + 1s;
    table->expire(now);
    EXPECT_EQ(table->counts().pairs, 0u);
    EXPECT_THAT(send(running.port, place(1, 1), "hello"), IsEmpty());
    EXPECT_THAT(enrol(running, place(1, 1)), IsEmpty());
}

}  // namespace
}  // namespace velmora
