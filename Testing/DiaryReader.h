#pragma once

#include <string>
#include <vector>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

/// The lines that a test's subject wrote into the shared diary since the reader was made.
class DiaryReader {
public:
    DiaryReader() { DebugLog::shared().clear(); }

    std::vector<std::string> lines(DebugLog::Source source) const {
        std::vector<std::string> lines;
        for (const auto& entry : DebugLog::shared().entries()) {
            if (entry.source == source) lines.push_back(entry.text);
        }
        return lines;
    }
    std::vector<std::string> hostLines() const { return lines(DebugLog::Source::server); }
    std::vector<std::string> viewerLines() const { return lines(DebugLog::Source::viewer); }
};

}  // namespace velmora
