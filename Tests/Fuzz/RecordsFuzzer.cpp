// Every record decoder on foreign bytes. The first byte chooses the record, by its message type, the rest is
// the payload. What decodes must encode to something that decodes to the same value.

#include <cstdio>
#include <cstdlib>

#include "VelmoraKit/Wire/AudioPacket.h"
#include "VelmoraKit/Wire/CursorShape.h"
#include "VelmoraKit/Wire/DisplayRecords.h"
#include "VelmoraKit/Wire/InputRecords.h"
#include "VelmoraKit/Wire/MessageType.h"
#include "VelmoraKit/Wire/SessionRecords.h"
#include "VelmoraKit/Wire/TimingRecords.h"
#include "VelmoraKit/Wire/VideoRecords.h"

using namespace velmora;

namespace {

template <class Record>
void exercise(ByteView payload) {
    const auto record = Record::decode(payload);
    if (!record) return;
    const auto again = Record::decode(record->encode());
    if (again && *again == *record) return;
    std::fputs("a decoded record does not survive its own encoding\n", stderr);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const ByteView payload(data + 1, size - 1);
    const auto type = messageTypeOf(data[0]);
    if (!type) {
        exercise<ServerDisplay>(payload);
        return 0;
    }
    switch (*type) {
        case MessageType::hello:
            exercise<Hello>(payload);
            break;
        case MessageType::streamConfig:
            exercise<StreamConfig>(payload);
            break;
        case MessageType::videoFrame:
            exercise<VideoFrame>(payload);
            break;
        case MessageType::input:
            exercise<InputEvent>(payload);
            break;
        case MessageType::ping:
            exercise<Ping>(payload);
            break;
        case MessageType::pong:
            exercise<Pong>(payload);
            break;
        case MessageType::resizeDisplay:
            exercise<DisplayRequest>(payload);
            break;
        case MessageType::displayList:
            exercise<DisplayList>(payload);
            break;
        case MessageType::selectDisplay:
            exercise<DisplaySelection>(payload);
            break;
        case MessageType::bitrateHint:
            exercise<BitrateHint>(payload);
            break;
        case MessageType::nack:
            exercise<Nack>(payload);
            break;
        case MessageType::cursor:
            exercise<CursorShape>(payload);
            break;
        case MessageType::audio:
            exercise<AudioPacket>(payload);
            break;
        case MessageType::textFocus:
            exercise<TextFocus>(payload);
            break;
        case MessageType::denied:
            exercise<Denied>(payload);
            break;
        case MessageType::requestKeyframe:
        case MessageType::bye:
        case MessageType::log:
        case MessageType::clipboard:
            break;  // empty, bare text, or a decoder of its own
    }
    return 0;
}
