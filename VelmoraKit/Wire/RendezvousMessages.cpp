#include "VelmoraKit/Wire/RendezvousMessages.h"

#include <type_traits>
#include <utility>

#include "VelmoraKit/Wire/JsonCoding.h"

namespace velmora::rendezvous {
namespace {

using json::Json;
using json::MaybeConst;

void eachKey(auto& keys, MaybeConst<HostCandidates> auto& candidates) {
    keys("addresses", candidates.addresses);
    keys("port", candidates.port);
    keys("quic", candidates.quic);
    keys("fingerprint", candidates.fingerprint);
    keys("mapped", candidates.mapped);
}

void eachKey(auto& keys, MaybeConst<RelayOffer> auto& offer) {
    keys("host", offer.host);
    keys("port", offer.port);
    keys("token", offer.token);
}

void eachKey(auto& keys, MaybeConst<HostCreate> auto& message) {
    keys.required("hostId", message.hostId);
    keys.required("password", message.password);
    keys("hostname", message.hostname);
    keys("available", message.available);
}

void eachKey(auto& keys, MaybeConst<HostAvailability> auto& message) {
    keys("available", message.available);
}

void eachKey(auto& keys, MaybeConst<Accept> auto& message) {
    keys.required("clientId", message.clientId);
    keys.required("candidates", message.candidates);
}

void eachKey(auto& keys, MaybeConst<Reject> auto& message) {
    keys("message", message.message);
}

void eachKey(auto& keys, MaybeConst<Join> auto& message) {
    keys.required("id", message.id);
    keys.required("password", message.password);
    keys("clientName", message.clientName);
    keys("deviceId", message.deviceId);
    keys("agent", message.agent);
}

void eachKey(auto&, MaybeConst<Hangup> auto&) {}

/// The object in which a viewer's candidates are wrapped.
struct Mapped {
    std::string mapped;
};
void eachKey(auto& keys, MaybeConst<Mapped> auto& candidates) {
    keys.required("mapped", candidates.mapped);
}

void eachKey(auto& keys, MaybeConst<ViewerCandidates> auto& message) {
    Mapped candidates{message.mapped};
    keys.required("candidates", candidates);
    if constexpr (!std::is_const_v<std::remove_reference_t<decltype(message)>>) {
        message.mapped = std::move(candidates.mapped);
    }
}

void eachKey(auto& keys, MaybeConst<SessionCreated> auto& message) {
    keys("id", message.id);
    keys("publicAddress", message.publicAddress);
}

void eachKey(auto& keys, MaybeConst<JoinRequest> auto& message) {
    keys.required("clientId", message.clientId);
    keys("clientName", message.clientName);
    keys("clientAddress", message.clientAddress);
    keys("agent", message.agent);
}

void eachKey(auto& keys, MaybeConst<SecurityNotice> auto& message) {
    keys("message", message.message);
}

void eachKey(auto& keys, MaybeConst<JoinPending> auto& message) {
    keys("hostname", message.hostname);
}

void eachKey(auto& keys, MaybeConst<Rejected> auto& message) {
    keys("message", message.message);
    keys("code", message.code);
}

void eachKey(auto& keys, MaybeConst<Accepted> auto& message) {
    keys("sessionToken", message.sessionToken);
    keys("clientId", message.clientId);
    keys("hostCandidates", message.hostCandidates);
    keys.whenPresent("relay", message.relay);
}

void eachKey(auto& keys, MaybeConst<AdminKick> auto& message) {
    keys("message", message.message);
}

void eachKey(auto&, MaybeConst<PeerLeft> auto&) {}

void eachKey(auto& keys, MaybeConst<Error> auto& message) {
    keys("message", message.message);
    keys("code", message.code);
}

template <class T>
constexpr bool isRecord = std::is_class_v<T> && !std::same_as<T, std::string> && !json::ListOf<T>::value;

/// What fits is taken, what does not counts as missing.
struct LenientReading {
    const Json& object;
    bool complete = true;

    template <class Field>
    void operator()(const char* key, Field& field) {
        const auto found = object.find(key);
        if (found == object.end()) return;
        if constexpr (json::OptionalOf<Field>::value) {
            typename Field::value_type value{};
            if (readField(*found, value)) field = std::move(value);
        } else {
            Field value{};
            if (readField(*found, value)) field = std::move(value);
        }
    }

    template <class Field>
    void required(const char* key, Field& field) {
        const auto found = object.find(key);
        complete = complete && found != object.end() && readField(*found, field);
    }

    /// The record is there, if only with its defaults, when the key is.
    template <class Record>
    void whenPresent(const char* key, std::optional<Record>& field) {
        const auto found = object.find(key);
        if (found == object.end() || found->is_null()) return;
        if (!readField(*found, field.emplace())) field.emplace();
    }

    template <class T>
    static bool readField(const Json& value, T& into) {
        if constexpr (isRecord<T>) {
            if (!value.is_object()) return false;
            LenientReading keys{value};
            eachKey(keys, into);
            return keys.complete;
        } else {
            return json::read(value, into);
        }
    }
};

struct MessageWriting {
    Json object = Json::object();

    template <class Field>
    void operator()(const char* key, const Field& field) {
        if constexpr (json::OptionalOf<Field>::value) {
            if (field) (*this)(key, *field);
        } else if constexpr (isRecord<Field>) {
            MessageWriting keys;
            eachKey(keys, field);
            object[key] = std::move(keys.object);
        } else {
            object[key] = json::write(field);
        }
    }
    template <class Field>
    void required(const char* key, const Field& field) {
        (*this)(key, field);
    }
    template <class Field>
    void whenPresent(const char* key, const Field& field) {
        (*this)(key, field);
    }
};

template <class Message>
std::string encodeMessage(const Message& message) {
    MessageWriting keys;
    keys.object["type"] = Message::type;
    eachKey(keys, message);
    return keys.object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

template <class Message, class Any>
bool decodeAs(const Json& object, const std::string& type, std::optional<Any>& into) {
    if (type != Message::type) return false;
    Message message;
    if (LenientReading::readField(object, message)) into = std::move(message);
    return true;
}

/// The object of a message, which has a "type"; null if `text` is no message.
Json objectIn(std::string_view text) {
    if (text.size() > longestMessage) return nullptr;
    Json object = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    if (!object.is_object()) return nullptr;
    const auto type = object.find("type");
    return type != object.end() && type->is_string() ? std::move(object) : Json();
}

template <class... Messages>
bool isTypeOfAny(const std::string& type, std::type_identity<std::variant<Messages...>>) {
    return ((type == Messages::type) || ...);
}

template <class... Messages>
std::optional<std::variant<Messages...>> decodeAny(std::string_view text,
                                                   std::type_identity<std::variant<Messages...>>) {
    std::optional<std::variant<Messages...>> decoded;
    const Json object = objectIn(text);
    if (object.is_null()) return decoded;
    (decodeAs<Messages>(object, object["type"].get_ref<const std::string&>(), decoded) || ...);
    return decoded;
}

}  // namespace

std::optional<Relay> RelayOffer::relay() const {
    if (!isComplete() || !std::in_range<std::uint16_t>(*port)) return std::nullopt;
    return Relay{*host, static_cast<std::uint16_t>(*port), *token};
}

std::string encode(const FromClient& message) {
    return std::visit([](const auto& one) { return encodeMessage(one); }, message);
}

std::string encode(const ToClient& message) {
    return std::visit([](const auto& one) { return encodeMessage(one); }, message);
}

std::optional<FromClient> decodeFromClient(std::string_view text) {
    return decodeAny(text, std::type_identity<FromClient>{});
}

std::optional<ToClient> decodeToClient(std::string_view text) {
    return decodeAny(text, std::type_identity<ToClient>{});
}

bool isOfUnknownType(std::string_view text) {
    const Json object = objectIn(text);
    if (object.is_null()) return false;
    return !isTypeOfAny(object["type"].get_ref<const std::string&>(), std::type_identity<FromClient>{});
}

}  // namespace velmora::rendezvous
