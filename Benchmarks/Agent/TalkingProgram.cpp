#include "Benchmarks/Agent/TalkingProgram.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace velmora {

TalkingProgram::TalkingProgram(const std::vector<std::string>& command,
                               const ChildProgram::Environment& environment) {
    std::signal(SIGPIPE, SIG_IGN);  // a program that ends early is heard of by its silence
    std::array<int, 2> to{}, from{};
    if (pipe2(to.data(), O_CLOEXEC) != 0 || pipe2(from.data(), O_CLOEXEC) != 0) return;
    in_ = to[1];
    out_ = from[0];
    // By their paths: a shell may take no numbers of two digits.
    std::vector<std::string> arguments{
        "sh", "-c", fmt::format("exec \"$@\" </proc/self/fd/{} >/proc/self/fd/{}", to[0], from[1]), "sh"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    if (auto child = ChildProgram::start(arguments, environment, true, {to[0], from[1]}))
        child_ = std::move(*child);
    close(to[0]);
    close(from[1]);
}

TalkingProgram::~TalkingProgram() {
    close(in_);
    close(out_);
}

void TalkingProgram::tell(const nlohmann::json& message) {
    const std::string line = message.dump() + "\n";
    for (std::size_t sent = 0; sent < line.size();) {
        const auto count = write(in_, line.data() + sent, line.size() - sent);
        if (count <= 0) return;
        sent += static_cast<std::size_t>(count);
    }
}

std::optional<nlohmann::json> TalkingProgram::next(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::size_t searched = 0;
    for (;;) {
        const auto lineEnd = heard_.find('\n', searched);
        if (lineEnd != std::string::npos) {
            auto message = nlohmann::json::parse(
                heard_.begin(), heard_.begin() + static_cast<std::ptrdiff_t>(lineEnd), nullptr, false);
            heard_.erase(0, lineEnd + 1);
            if (message.is_discarded()) return std::nullopt;
            return message;
        }
        searched = heard_.size();
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd poller{out_, POLLIN, 0};
        if (left.count() <= 0 || poll(&poller, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
        std::array<char, 65536> bytes;
        const auto count = read(out_, bytes.data(), bytes.size());
        if (count <= 0) return std::nullopt;
        heard_.append(bytes.data(), static_cast<std::size_t>(count));
    }
}

}  // namespace velmora
