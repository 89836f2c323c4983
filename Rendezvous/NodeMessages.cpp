#include "Rendezvous/NodeMessages.h"

#include <array>
#include <utility>

#include "VelmoraKit/Wire/JsonCoding.h"

namespace velmora::nodes {

using json::MaybeConst;

constexpr std::array verdictWords{"absent", "wrong_password", "away", "busy", "here"};

static std::string nameOf(Verdict::Kind kind) {
    return verdictWords[static_cast<std::size_t>(kind)];
}

static bool readName(const std::string& text, Verdict::Kind& into) {
    for (std::size_t i = 0; i < verdictWords.size(); ++i) {
        if (text != verdictWords[i]) continue;
        into = static_cast<Verdict::Kind>(i);
        return true;
    }
    return false;
}

static void eachKey(auto& keys, MaybeConst<Ask> auto& message) {
    keys("password", message.password);
    keys("clientId", message.clientId);
    keys("node", message.node);
    keys("clientName", message.clientName);
    keys("clientAddress", message.clientAddress);
    keys("agent", message.agent);
}

static void eachKey(auto& keys, MaybeConst<Verdict> auto& message) {
    keys("kind", message.kind);
    keys("hostname", message.hostname);
}

static void eachKey(auto& keys, MaybeConst<Claim> auto& message) {
    keys("password", message.password);
    keys("source", message.source);
}

static void eachKey(auto& keys, MaybeConst<ClaimVerdict> auto& message) {
    keys("released", message.released);
}

static void eachKey(auto& keys, MaybeConst<ToViewer> auto& message) {
    keys("clientId", message.clientId);
    keys("text", message.text);
}

static void eachKey(auto& keys, MaybeConst<FromViewer> auto& message) {
    keys("hostId", message.hostId);
    keys("clientId", message.clientId);
    keys("mapped", message.mapped);
}

static void eachKey(auto& keys, MaybeConst<Guess> auto& message) {
    keys("hostId", message.hostId);
    keys("source", message.source);
    keys("mark", message.mark);
}

static void eachKey(auto& keys, MaybeConst<Seen> auto& message) {
    keys("line", message.line);
}

template <class Record>
static bool decodeAs(const json::Json& object, const std::string& type, std::optional<Message>& into) {
    if (type != Record::type) return false;
    Record record;
    if (json::read(object, record)) into = std::move(record);
    return true;
}

template <class... Records>
static void decodeAny(const json::Json& object, const std::string& type, std::optional<Message>& into,
                      std::type_identity<std::variant<Records...>>) {
    (decodeAs<Records>(object, type, into) || ...);
}

std::string encode(const Message& message) {
    return std::visit(
        []<class Record>(const Record& record) {
            json::Json object = json::write(record);
            object["type"] = Record::type;
            return object.dump(-1, ' ', false, json::Json::error_handler_t::replace);
        },
        message);
}

std::optional<Message> decode(std::string_view text) {
    std::optional<Message> message;
    if (text.size() > json::longestText) return message;
    const auto object = json::Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    if (!object.is_object()) return message;
    const auto type = object.find("type");
    if (type == object.end() || !type->is_string()) return message;
    decodeAny(object, type->get_ref<const std::string&>(), message, std::type_identity<Message>{});
    return message;
}

}  // namespace velmora::nodes
