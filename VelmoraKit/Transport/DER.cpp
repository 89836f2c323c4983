#include "VelmoraKit/Transport/DER.h"

#include <fmt/format.h>

#include <string>

namespace velmora::DER {

Bytes tagged(Tag tag, ByteView content) {
    Bytes out{static_cast<std::uint8_t>(tag)};
    if (content.size() < 128) {
        out.push_back(static_cast<std::uint8_t>(content.size()));
    } else {
        Bytes length;
        for (auto rest = content.size(); rest > 0; rest >>= 8) {
            length.insert(length.begin(), static_cast<std::uint8_t>(rest));
        }
        out.push_back(static_cast<std::uint8_t>(0x80 + length.size()));
        out.insert(out.end(), length.begin(), length.end());
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Bytes tagged(Tag tag, std::initializer_list<Bytes> parts) {
    Bytes content;
    for (const Bytes& part : parts) content.insert(content.end(), part.begin(), part.end());
    return tagged(tag, ByteView(content));
}

Bytes utf8(std::string_view text) {
    return tagged(Tag::utf8String, viewOf(text));
}

Bytes utcTime(std::chrono::system_clock::time_point date) {
    using namespace std::chrono;
    const auto day = floor<days>(date);
    const year_month_day calendar(day);
    const hh_mm_ss time(floor<seconds>(date) - day);
    const int year = static_cast<int>(calendar.year()) % 100;
    return tagged(
        Tag::utcTime,
        viewOf(fmt::format("{:02}{:02}{:02}{:02}{:02}{:02}Z", year, static_cast<unsigned>(calendar.month()),
                           static_cast<unsigned>(calendar.day()), time.hours().count(),
                           time.minutes().count(), time.seconds().count())));
}

Bytes bitString(ByteView content) {
    Bytes bits{0};
    bits.insert(bits.end(), content.begin(), content.end());
    return tagged(Tag::bitString, ByteView(bits));
}

}  // namespace velmora::DER
