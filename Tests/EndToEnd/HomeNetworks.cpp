#include "Tests/EndToEnd/HomeNetworks.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <optional>
#include <string_view>

#include "Tests/EndToEnd/Programs.h"

namespace velmora {
namespace {

constexpr std::array<const char*, 5> names{"internet", "host", "viewer", "hostRouter", "viewerRouter"};

constexpr const char* setup = R"(
# cable FROM DEVICE ADDRESS TO DEVICE ADDRESS
cable() {
    ip link add "$2" netns "$1" type veth peer name "$5" netns "$4"
    nsenter --net="/proc/$1/ns/net" ip address add "$3" dev "$2"
    nsenter --net="/proc/$4/ns/net" ip address add "$6" dev "$5"
    nsenter --net="/proc/$1/ns/net" ip link set "$2" up
    nsenter --net="/proc/$4/ns/net" ip link set "$5" up
}
within() { where=$1; shift; nsenter --net="/proc/$where/ns/net" "$@"; }

for one in $internet $host $viewer $hostRouter $viewerRouter; do within $one ip link set lo up; done
within $internet ip address add 192.0.2.1/32 dev lo
cable $internet one 198.51.100.1/30 $hostRouter wan 198.51.100.2/30
if [ "$slow" = true ]; then
    within $internet ip address add 203.0.113.1/30 dev two
    within $internet ip link set two up
    within $viewerRouter ip address add 203.0.113.2/30 dev wan
    within $viewerRouter ip link set wan up
else
    cable $internet two 203.0.113.1/30 $viewerRouter wan 203.0.113.2/30
fi

within $hostRouter ip link add lan type bridge
within $hostRouter ip address add 10.1.0.1/24 dev lan
within $hostRouter ip link set lan up
cable $hostRouter port1 0.0.0.0/32 $host home 10.1.0.2/24
within $hostRouter ip link set port1 master lan
within $host ip route add default via 10.1.0.1
if [ "$oneHome" = true ]; then
    cable $hostRouter port2 0.0.0.0/32 $viewer home 10.1.0.3/24
    within $hostRouter ip link set port2 master lan
    within $viewer ip route add default via 10.1.0.1
else
    cable $viewerRouter lan 10.2.0.1/24 $viewer home 10.2.0.2/24
    within $viewer ip route add default via 10.2.0.1
fi
within $hostRouter ip route add default via 198.51.100.1
within $viewerRouter ip route add default via 203.0.113.1

for one in $internet $hostRouter $viewerRouter; do
    within $one sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
done
for one in $hostRouter $viewerRouter; do
    within $one nft -f - <<'END'
table ip home {
    chain outgoing {
        type nat hook postrouting priority 100
        oifname "wan" masquerade
    }
    # A packet that nobody asked for must leave no trace: a mapping made by it would take the port that a
    # packet from inside wants.
    chain incoming {
        type filter hook input priority 0
        iifname "wan" ct state new drop
    }
    chain through {
        type filter hook forward priority 0
        iifname "wan" ct state new ct status ! dnat drop
    }
}
END
done
if [ "$openHost" = true ]; then
    within $hostRouter nft -f - <<'END'
table ip opened {
    chain arriving {
        type nat hook prerouting priority -100
        iifname "wan" udp dport 47272 dnat to 10.1.0.2
    }
}
END
fi
)";

constexpr const char* block = R"(
nsenter --net="/proc/$internet/ns/net" nft -f - <<'END'
table ip block {
    chain through {
        type filter hook forward priority 0
        meta l4proto udp drop
    }
}
END
)";

/// A router forgets its mappings when its line goes down.
constexpr const char* move = R"(
router() { nsenter --net="/proc/$viewerRouter/ns/net" "$@"; }
router ip link set wan down
router nft flush chain ip home outgoing
router nft add rule ip home outgoing oifname wan meta l4proto udp masquerade to :40000-49999
router ip link set wan up
router ip route add default via 203.0.113.1
nsenter --net="/proc/$internet/ns/net" nft -f - <<'END'
table ip gone {
    chain through {
        type filter hook forward priority 0
        udp sport 50000-60000 drop
        udp dport 50000-60000 drop
    }
}
END
)";

constexpr const char* forget = R"(
router() { nsenter --net="/proc/$viewerRouter/ns/net" "$@"; }
router nft insert rule ip home outgoing oifname wan meta l4proto udp masquerade to :40000-49999
router conntrack -D -p udp >/dev/null 2>&1
)";

std::string networkOf(const std::string& process) {
    std::array<char, PATH_MAX> target{};
    const ssize_t size =
        readlink(fmt::format("/proc/{}/ns/net", process).c_str(), target.data(), target.size());
    return size < 0 ? "" : std::string(target.data(), static_cast<std::size_t>(size));
}

}  // namespace

HomeNetworks::HomeNetworks(Options options) {
    for ([[maybe_unused]] const char* name : names) {
        auto process = ChildProgram::start({"unshare", "--net", "sleep", "infinity"});
        if (!process) {
            error_ = process.error().text;
            return;
        }
        namespaces_.push_back(std::move(*process));
        ChildProgram& child = *namespaces_.back();
        const auto hasMoved = [&] {
            return networkOf(std::to_string(child.pid())) != networkOf("self") ||
                   child.waitForExit(std::chrono::milliseconds(0));
        };
        if (!eventually(hasMoved) || child.waitForExit(std::chrono::milliseconds(0))) {
            allowed_ = false;
            error_ = "unshare failed";
            return;
        }
    }
    if (options.viewersLine) {
        const auto inhabitant = [&](std::string_view name) {
            const auto found = std::ranges::find(names, name);
            return namespaces_[static_cast<std::size_t>(found - names.begin())]->pid();
        };
        viewersLine_.emplace(SlowCable::End{inhabitant("internet"), "two"},
                             SlowCable::End{inhabitant("viewerRouter"), "wan"}, *options.viewersLine);
        if (!viewersLine_->isLaid()) {
            allowed_ = false;
            error_ = "no TUN device";
            return;
        }
    }
    error_ = run(fmt::format("oneHome={}\nopenHost={}\nslow={}\n{}", options.oneHome, options.openHost,
                             options.viewersLine.has_value(), setup));
}

std::vector<std::string> HomeNetworks::at(Place place, std::vector<std::string> command) const {
    const auto& inhabitant = *namespaces_.at(static_cast<std::size_t>(place));
    command.insert(command.begin(), {"nsenter", fmt::format("--net=/proc/{}/ns/net", inhabitant.pid())});
    return command;
}

void HomeNetworks::blockDirectPaths() {
    if (error_.empty()) error_ = run(block);
}

void HomeNetworks::moveViewersPorts() {
    if (error_.empty()) error_ = run(move);
}

void HomeNetworks::forgetViewersPorts() {
    if (error_.empty()) error_ = run(forget);
}

/// Empty, or that it failed; the shell has said why.
std::string HomeNetworks::run(const std::string& script) const {
    std::string variables;
    for (std::size_t i = 0; i < names.size(); ++i)
        variables += fmt::format("{}={}\n", names[i], namespaces_[i]->pid());
    const auto shell = ChildProgram::start({"sh", "-euc", variables + script});
    const auto status = shell ? (*shell)->waitForExit(within(20)) : std::nullopt;
    return status == 0 ? "" : "the networks could not be set up";
}

}  // namespace velmora
