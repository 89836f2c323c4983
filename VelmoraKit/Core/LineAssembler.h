#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace velmora {

/// Makes lines of a stream of bytes that comes in pieces. A line ends with a line feed, before which a
/// carriage return is dropped too; what follows the last line feed is a line of its own at the end.
class LineAssembler {
public:
    /// A longer line is cut there, whatever its end brings: the rest is read and thrown away.
    explicit LineAssembler(std::size_t longestLine) : longestLine_(longestLine) {}

    /// Called from `take` and `finish`, once for each line.
    std::function<void(std::string line)> onLine;

    void take(std::string_view bytes);
    void finish();

private:
    void append(std::string_view bytes);
    void endLine();

    const std::size_t longestLine_;
    std::string line_;
};

}  // namespace velmora
