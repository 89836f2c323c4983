#include "Platform/Linux/Network/LinuxNetworkAddresses.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <cstdlib>

namespace velmora {
namespace {

TEST(LinuxNetworkAddressesTest, listsWhatPeersCanReachOnceEach) {
    if (::unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "needs the right to make a network namespace";
    ASSERT_EQ(std::system("ip link set lo up && ip link add one type veth peer name two && "
                          "ip addr add 10.1.2.3/24 dev one && ip addr add 169.254.7.7/16 dev one && "
                          "ip addr add 10.1.2.3/16 dev two && ip addr add 192.0.2.9/24 dev two && "
                          "ip link add idle type veth peer name idle2 && ip addr add 10.9.9.9/24 dev idle && "
                          "ip link set one up && ip link set two up"),
              0);
    EXPECT_EQ(LinuxNetworkAddresses().localIPv4(), (std::vector<std::string>{"10.1.2.3", "192.0.2.9"}));
}

}  // namespace
}  // namespace velmora
