// The keys of every JSON record of the control stream, as they stand on the wire.

#include <array>

#include "VelmoraKit/Wire/DisplayRecords.h"
#include "VelmoraKit/Wire/InputRecords.h"
#include "VelmoraKit/Wire/JsonCoding.h"
#include "VelmoraKit/Wire/SessionRecords.h"

namespace velmora {

using json::MaybeConst;

static void eachKey(auto& keys, MaybeConst<DisplayRequest> auto& request) {
    keys("width", request.width);
    keys("height", request.height);
    keys("scale", request.scale);
}

static void eachKey(auto& keys, MaybeConst<ServerDisplay> auto& display) {
    keys("id", display.id);
    keys("name", display.name);
    keys("width", display.width);
    keys("height", display.height);
}

static void eachKey(auto& keys, MaybeConst<DisplayList> auto& list) {
    keys("displays", list.displays);
    keys("virtualAvailable", list.virtualAvailable);
    keys("currentID", list.currentID);
}

static void eachKey(auto& keys, MaybeConst<DisplaySelection> auto& selection) {
    keys("displayID", selection.displayID);
    keys("window", selection.window);
}

static void eachKey(auto& keys, MaybeConst<Hello> auto& hello) {
    keys("name", hello.name);
    keys("protocolVersion", hello.protocolVersion);
    keys("display", hello.display);
    keys("deviceID", hello.deviceID);
    keys("sessionToken", hello.sessionToken);
    keys("password", hello.password);
    keys("audio", hello.audio);
    keys("agent", hello.agent);
}

static void eachKey(auto& keys, MaybeConst<Denied> auto& denied) {
    keys("code", denied.code);
    keys("message", denied.message);
}

static void eachKey(auto& keys, MaybeConst<BitrateHint> auto& hint) {
    keys("maxMbps", hint.maxMbps);
}

static constexpr std::array<const char*, 5> kindNames{"mouseMove", "mouseDown", "mouseUp", "scroll", "key"};

static const char* nameOf(InputEvent::Kind kind) {
    return kindNames[static_cast<std::size_t>(kind)];
}

static bool readName(const std::string& name, InputEvent::Kind& into) {
    const auto found = std::ranges::find(kindNames, name);
    into = static_cast<InputEvent::Kind>(found - kindNames.begin());
    return found != kindNames.end();
}

static void eachKey(auto& keys, MaybeConst<InputEvent> auto& event) {
    keys("kind", event.kind);
    keys("x", event.x);
    keys("y", event.y);
    keys("button", event.button);
    keys("clickCount", event.clickCount);
    keys("dx", event.dx);
    keys("dy", event.dy);
    keys("keyCode", event.keyCode);
    keys("characters", event.characters);
    keys("down", event.down);
    keys("flags", event.flags);
}

// clang-format off
Bytes DisplayRequest::encode() const { return json::encodeRecord(*this); }
Bytes ServerDisplay::encode() const { return json::encodeRecord(*this); }
Bytes DisplayList::encode() const { return json::encodeRecord(*this); }
Bytes DisplaySelection::encode() const { return json::encodeRecord(*this); }
Bytes Hello::encode() const { return json::encodeRecord(*this); }
Bytes Denied::encode() const { return json::encodeRecord(*this); }
Bytes BitrateHint::encode() const { return json::encodeRecord(*this); }
Bytes InputEvent::encode() const { return json::encodeRecord(*this); }

Result<DisplayRequest, WireError> DisplayRequest::decode(ByteView data) { return json::decodeRecord<DisplayRequest>(data); }
Result<ServerDisplay, WireError> ServerDisplay::decode(ByteView data) { return json::decodeRecord<ServerDisplay>(data); }
Result<DisplayList, WireError> DisplayList::decode(ByteView data) { return json::decodeRecord<DisplayList>(data); }
Result<DisplaySelection, WireError> DisplaySelection::decode(ByteView data) { return json::decodeRecord<DisplaySelection>(data); }
Result<Hello, WireError> Hello::decode(ByteView data) { return json::decodeRecord<Hello>(data); }
Result<Denied, WireError> Denied::decode(ByteView data) { return json::decodeRecord<Denied>(data); }
Result<BitrateHint, WireError> BitrateHint::decode(ByteView data) { return json::decodeRecord<BitrateHint>(data); }
Result<InputEvent, WireError> InputEvent::decode(ByteView data) { return json::decodeRecord<InputEvent>(data); }
// clang-format on

Bytes HostDenial::encode(std::string_view code, std::string_view message) {
    return Denied{.code = std::string(code), .message = std::string(message)}.encode();
}

}  // namespace velmora
