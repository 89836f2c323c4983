#include "Benchmarks/Rendezvous/ServiceProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr std::uint16_t firstPort = 23'400;  // WebSocket, then STUN, then the relay's eight

bool accepts(std::uint16_t port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to{
        .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}};
    const bool connected = connect(descriptor, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
    ::close(descriptor);
    return connected;
}

}  // namespace

ServiceProcess::ServiceProcess(Security security) : security_(security), port_(firstPort) {
    const std::string output = folder_.path() / "output";
    std::vector<std::string> arguments{VELMORA_RENDEZVOUS,
                                       "--listen",
                                       fmt::format("127.0.0.1:{}", port_),
                                       "--udp-address",
                                       "127.0.0.1",
                                       "--udp-port",
                                       std::to_string(port_ + 1),
                                       "--relay-ports",
                                       fmt::format("{}-{}", port_ + 2, port_ + 9),
                                       "--threads",
                                       "1"};
    if (security == Security::tls) {
        const std::string certificate = folder_.path() / "certificate.pem";
        const std::string key = folder_.path() / "key.pem";
        const std::string make = fmt::format(
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=localhost "
            "-keyout '{}' -out '{}' 2>/dev/null",
            key, certificate);
        if (std::system(make.c_str()) != 0) {
            fmt::print(stderr, "No certificate could be made\n");
            std::exit(1);
        }
        for (const auto& more : {std::string("--certificate"), certificate, std::string("--key"), key})
            arguments.push_back(more);
    }
    std::vector<char*> raw;
    for (std::string& argument : arguments) raw.push_back(argument.data());
    raw.push_back(nullptr);
    child_ = fork();
    if (child_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int file = open(output.c_str(), O_WRONLY | O_CREAT, 0600);
        dup2(file, STDOUT_FILENO);
        dup2(file, STDERR_FILENO);
        execv(raw[0], raw.data());
        _exit(127);
    }
    for (int tries = 0; tries < 100; ++tries) {
        if (waitpid(child_, nullptr, WNOHANG) == child_) break;
        if (accepts(port_)) return;
        std::this_thread::sleep_for(100ms);
    }
    fmt::print(stderr, "The service did not start:\n");
    std::ifstream text(output);
    for (std::string line; std::getline(text, line);) fmt::print(stderr, "{}\n", line);
    std::exit(1);
}

ServiceProcess::~ServiceProcess() {
    kill(child_, SIGTERM);
    waitpid(child_, nullptr, 0);
}

}  // namespace velmora
