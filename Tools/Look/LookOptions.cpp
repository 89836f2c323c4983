#include "Tools/Look/LookOptions.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "Shared/HostIdentity.h"

namespace velmora {

const std::string_view LookOptions::usage =
    R"(Usage: velmora-look HOST --password N [options]
Looks at a host without a window. HOST is its ID (852 290 732), found through the rendezvous service
(VELMORA_SIGNALING names another one), an address or name, with :PORT if it is not the usual one, or what it
advertises on this network (Name._velmora._udp.local.).
  --password N       the host's six digits
  --seconds S        how long to look (else until the picture rests)
  --type TEXT        type this first
  --png FILE         keep the last picture
  --script FILE      go on with the steps of FILE, "-" for standard input
  --stats            print the figures every second: the overlay's text, then the row of the statistics file
  --size WxH[@S]     ask for a virtual display of W by H points, S pixels each way per point
  --fingerprint F    trust only the certificate with this fingerprint
  --limit S          how long to wait for the first picture (30)
  --agent            say that this is an agent's session
  --log              print the diary to standard error
Steps, one to a line, places in pixels of the stream:
  move X Y | click X Y [left|right|middle] [COUNT] | drag X Y TO_X TO_Y | scroll X Y DX DY
  key COMBO (cmd+c, return) | type TEXT (to the end of the line; \n, \t and \\ as in C)
  wait SECONDS | settle [LIMIT] (until the picture rests) | change [LIMIT] (until it changes)
  png FILE | stats-csv FILE | # a comment
“change” tells how long after the last input it came.
Ends with 0, with 1 if the connection or a step failed, with 2 if it was not understood.
)";

namespace {

constexpr std::size_t hostIdDigits = 9;

bool isDigits(std::string_view text, std::string_view otherCharacters = "") {
    return std::ranges::all_of(text, [&](char c) {
        return (c >= '0' && c <= '9') || otherCharacters.find(c) != std::string_view::npos;
    });
}

std::string digitsOf(std::string text) {
    std::erase(text, ' ');
    return text;
}

std::optional<std::string> hostIdOf(const std::string& address) {
    if (!isDigits(address, " ")) return std::nullopt;
    auto digits = digitsOf(address);
    if (digits.size() != hostIdDigits) return std::nullopt;
    return digits;
}

std::optional<std::int64_t> takeInteger(std::string_view& text) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || value < 1 || value > 65535) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value;
}

bool take(std::string_view& text, char expected) {
    if (text.empty() || text.front() != expected) return false;
    text.remove_prefix(1);
    return true;
}

std::optional<DisplayRequest> sizeOf(std::string_view text) {
    DisplayRequest request;
    const auto width = takeInteger(text);
    if (!width || !take(text, 'x')) return std::nullopt;
    const auto height = takeInteger(text);
    if (!height) return std::nullopt;
    if (take(text, '@')) {
        const auto scale = takeInteger(text);
        if (!scale) return std::nullopt;
        request.scale = *scale;
    }
    if (!text.empty()) return std::nullopt;
    request.width = *width;
    request.height = *height;
    return request;
}

/// Reads the arguments one after the other; the first thing that is wrong ends it.
class Reader {
public:
    explicit Reader(const std::vector<std::string>& arguments) : arguments_(arguments) {}

    Result<LookOptions> read() {
        while (at_ < arguments_.size() && fault_.empty()) readOne(arguments_[at_++]);
        if (fault_.empty() && options_.address.empty()) fault_ = "whom to look at?";
        if (!fault_.empty()) return Failure{fault_};
        if (const auto digits = hostIdOf(options_.address)) options_.address = HostIdentity::grouped(*digits);
        // A fixed order, whatever that of the options.
        if (type_) options_.steps.push_back({"type", LookStep::typing(*type_)});
        if (seconds_) options_.steps.push_back({"wait", LookStep::Wait{*seconds_}});
        if (!seconds_ && !options_.script) options_.steps.push_back({"settle", LookStep::Settle{}});
        if (png_) options_.steps.push_back({"png", LookStep::SavePng{*png_}});
        return options_;
    }

private:
    void readOne(const std::string& argument) {
        if (argument == "--stats") {
            options_.stats = true;
        } else if (argument == "--agent") {
            options_.agent = true;
        } else if (argument == "--log") {
            options_.log = true;
        } else if (argument.starts_with("--")) {
            readValued(argument);
        } else {
            addToAddress(argument);
        }
    }

    /// More than one word is a Host ID as it is shown.
    void addToAddress(const std::string& word) {
        std::string& address = options_.address;
        const bool goesOn = !address.empty();
        if (goesOn) address += ' ';
        address += word;
        if (goesOn && !(isDigits(address, " ") && digitsOf(address).size() <= hostIdDigits))
            fault_ = fmt::format("one address is enough, not also “{}”", word);
    }

    void readValued(const std::string& option) {
        if (at_ == arguments_.size()) {
            fault_ = fmt::format("{} needs a value", option);
            return;
        }
        const std::string& value = arguments_[at_++];
        if (option == "--password") {
            options_.password = isDigits(value, " ") ? digitsOf(value) : value;
        } else if (option == "--fingerprint") {
            options_.fingerprint = value;
        } else if (option == "--type") {
            type_ = value;
        } else if (option == "--png") {
            png_ = value;
        } else if (option == "--script") {
            options_.script = value;
        } else if (option == "--seconds") {
            seconds_ = secondsOf(option, value);
        } else if (option == "--limit") {
            options_.limit = secondsOf(option, value);
        } else if (option == "--size") {
            options_.size = sizeOf(value);
            if (!options_.size) fault_ = fmt::format("{} is no size", value);
        } else {
            fault_ = fmt::format("there is no option {}", option);
        }
    }

    LookStep::Seconds secondsOf(const std::string& option, const std::string& value) {
        const auto step = LookStep::parse("wait " + value);
        if (step && *step) return std::get<LookStep::Wait>((*step)->what).span;
        fault_ = fmt::format("{} takes a number of seconds, not “{}”", option, value);
        return {};
    }

    const std::vector<std::string>& arguments_;
    std::size_t at_ = 0;
    std::string fault_;
    LookOptions options_;
    std::optional<std::string> type_, png_;
    std::optional<LookStep::Seconds> seconds_;
};

}  // namespace

RemoteDevices::Target LookOptions::target() const {
    if (auto digits = hostIdOf(address)) return RemoteDevices::HostId{*std::move(digits)};
    constexpr std::string_view type = "_velmora._udp";
    const auto mark = address.find("." + std::string(type));
    if (mark == std::string::npos) return RemoteDevices::endpointFor(address);
    std::string_view domain = std::string_view(address).substr(mark + 1 + type.size());
    if (domain.starts_with('.')) domain.remove_prefix(1);
    return Endpoint::service(address.substr(0, mark), std::string(type), std::string(domain));
}

Result<LookOptions> LookOptions::parse(const std::vector<std::string>& arguments) {
    return Reader(arguments).read();
}

}  // namespace velmora
