// What the rendezvous service bears: registered hosts and their memory, introductions a second, the same
// beside thousands of connections that never finish opening, and its relay.
//
//   RendezvousBenchmark [--case registrations|introductions|half-open|relay] [--hosts N] [--seconds S]
//                       [--rate R] [--half-open N] [--pairs N] [--tls 1]
//
// Without --case it runs all of them. The service is the built velmora-rendezvous with one thread; clients
// are other processes on the same machine, each with a loopback address of its own. TLS is for registrations
// and introductions.

#include <fmt/format.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "Benchmarks/ProcessUse.h"
#include "Benchmarks/Rendezvous/HostCrowd.h"
#include "Benchmarks/Rendezvous/Introductions.h"
#include "Benchmarks/Rendezvous/RelayLoad.h"
#include "Benchmarks/Rendezvous/ServiceProcess.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

struct Options {
    std::string chosen;  // empty: each case
    std::uint32_t hosts = 15'000;
    std::uint32_t halfOpen = 10'000;
    double rate = 1'000;  // introductions a second
    double seconds = 10;
    std::size_t pairs = 50;
    ServiceProcess::Security security = ServiceProcess::Security::plain;
};

[[noreturn]] void giveUp(std::string_view why) {
    fmt::print(stderr, "{}\n", why);
    std::exit(1);
}

void print(std::string_view what, const IntroductionFigures& figures, double cpuSeconds) {
    fmt::print(
        "{:40} {:6.0f}/s, p50 {:.2f} p95 {:.2f} p99 {:.2f} ms; connecting p50 {:.2f} p95 {:.2f} ms; {} made, "
        "{} "
        "failed, {} with relay; service {:.2f} ms of CPU each\n",
        what, figures.perSecond, figures.introduced.percentile(50), figures.introduced.percentile(95),
        figures.introduced.percentile(99), figures.connected.percentile(50), figures.connected.percentile(95),
        figures.made, figures.failed, figures.relayed, figures.made ? 1e3 * cpuSeconds / figures.made : 0.0);
    std::fflush(stdout);
}

IntroductionFigures introduceAndPrint(std::string_view what, const ServiceProcess& service,
                                      IntroductionOptions options) {
    options.port = service.port();
    const double before = service.use().cpuSeconds;
    auto figures = introduce(options);
    print(what, figures, service.use().cpuSeconds - before);
    return figures;
}

void registrations(const Options& options) {
    const ServiceProcess service(options.security);
    const ProcessUse before = service.use();
    const auto start = HostClock::now();
    const HostCrowd hosts(service.port(), options.hosts);
    if (!hosts.waitUntilReady(300s))
        giveUp(fmt::format("only {} of {} hosts are registered, {} were refused", hosts.ready(),
                           options.hosts, hosts.lost()));
    const std::chrono::duration<double> took = HostClock::now() - start;
    const ProcessUse after = service.use();
    fmt::print(
        "{} hosts registered in {:.1f} s, {:.2f} ms of CPU each: {:.1f} MB resident, of which {:.1f} MB "
        "before "
        "them; {:.2f} kB a host\n",
        options.hosts, took.count(), 1e3 * (after.cpuSeconds - before.cpuSeconds) / options.hosts,
        after.megabytes, before.megabytes, 1e3 * (after.megabytes - before.megabytes) / options.hosts);
    introduceAndPrint(fmt::format("introductions, {} hosts", options.hosts), service,
                      {.hosts = options.hosts, .seconds = options.seconds, .perSecond = options.rate});
    fmt::print("afterwards {:.1f} MB; {} hosts lost their connection\n", service.use().megabytes,
               hosts.lost());
}

void introductions(const Options& options) {
    const ServiceProcess service(options.security);
    const std::uint32_t count = std::min(options.hosts, 2'000u);
    const HostCrowd hosts(service.port(), count);
    if (!hosts.waitUntilReady(60s)) giveUp("the hosts are not registered");
    for (const double rate : {options.rate / 4, options.rate}) {
        introduceAndPrint(fmt::format("introductions, {:.0f} asked for", rate), service,
                          {.hosts = count, .seconds = options.seconds, .perSecond = rate});
    }
    introduceAndPrint("introductions, 32 viewers at a time", service,
                      {.hosts = count, .seconds = options.seconds});
}

/// Alternates, so that what else the machine does falls on both.
void halfOpen(const Options& options) {
    const ServiceProcess service;
    const std::uint32_t count = std::min(options.hosts, 2'000u);
    const HostCrowd hosts(service.port(), count);
    if (!hosts.waitUntilReady(60s)) giveUp("the hosts are not registered");
    const IntroductionOptions load{.hosts = count, .seconds = options.seconds, .perSecond = options.rate / 4};
    SampleSet medians[2];
    for (int round = 0; round < 3; ++round) {
        medians[0].add(
            introduceAndPrint("no half-open connections", service, load).introduced.percentile(50));
        const ProcessUse before = service.use();
        const HalfOpenCrowd crowd(service.port(), options.halfOpen);
        if (!crowd.waitUntilReady(60s)) giveUp("the half-open connections were not taken");
        fmt::print("{} half-open connections, of which the service ended {}: {:.1f} MB more\n", crowd.ready(),
                   crowd.lost(), service.use().megabytes - before.megabytes);
        medians[1].add(introduceAndPrint("beside them", service, load).introduced.percentile(50));
        fmt::print("by now {} were opened and {} ended\n", crowd.ready(), crowd.lost());
    }
    const double slower = medians[1].percentile(50) / medians[0].percentile(50) - 1;
    fmt::print("median of medians: {:.2f} ms alone, {:.2f} ms beside: {:+.0f} %\n", medians[0].percentile(50),
               medians[1].percentile(50), 100 * slower);
}

int run(const Options& options) {
    const auto isChosen = [&](std::string_view name) {
        return options.chosen.empty() || options.chosen == name;
    };
    if (isChosen("registrations")) registrations(options);
    if (isChosen("introductions")) introductions(options);
    if (isChosen("half-open")) halfOpen(options);
    if (isChosen("relay") && !measureRelay({.pairs = options.pairs, .seconds = options.seconds}))
        giveUp("the relay did not pair its sides");
    return 0;
}

Options parse(int count, char** arguments) {
    Options options;
    for (int i = 1; i < count; i += 2) {
        const std::string_view name = arguments[i];
        const std::string value = i + 1 < count ? arguments[i + 1] : "";
        const double number = std::atof(value.c_str());
        if (name == "--case") {
            options.chosen = value;
        } else if (number <= 0) {
            giveUp(fmt::format("{} needs a number", name));
        } else if (name == "--hosts") {
            options.hosts = static_cast<std::uint32_t>(number);
        } else if (name == "--half-open") {
            options.halfOpen = static_cast<std::uint32_t>(number);
        } else if (name == "--rate") {
            options.rate = number;
        } else if (name == "--seconds") {
            options.seconds = number;
        } else if (name == "--tls") {
            options.security = ServiceProcess::Security::tls;
        } else if (name == "--pairs") {
            options.pairs = static_cast<std::size_t>(number);
        } else {
            giveUp(fmt::format("{} is unknown", name));
        }
    }
    return options;
}

}  // namespace
}  // namespace velmora

int main(int count, char** arguments) {
    signal(SIGPIPE, SIG_IGN);
    return velmora::run(velmora::parse(count, arguments));
}
