#include "VelmoraKit/Core/LineAssembler.h"

#include <utility>

namespace velmora {

void LineAssembler::take(std::string_view bytes) {
    for (auto end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
        append(bytes.substr(0, end));
        endLine();
        bytes.remove_prefix(end + 1);
    }
    append(bytes);
}

void LineAssembler::finish() {
    if (!line_.empty()) endLine();
}

void LineAssembler::append(std::string_view bytes) {
    line_.append(bytes.substr(0, longestLine_ - line_.size()));
}

void LineAssembler::endLine() {
    std::string line = std::exchange(line_, {});
    if (line.ends_with('\r')) line.pop_back();
    if (onLine) onLine(std::move(line));
}

}  // namespace velmora
