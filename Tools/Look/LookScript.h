#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Wire/InputRecords.h"

namespace velmora {

/// One line of a script, as `LookOptions::usage` lists them.
struct LookStep {
    using Seconds = std::chrono::duration<double>;

    struct Input {
        std::function<std::vector<InputEvent>(PixelSize stream)> events;
        Seconds interval{};  // between two of them; a drag at no speed of a hand is missed by window managers
    };
    struct Wait {
        Seconds span{};
    };
    struct Settle {
        Seconds limit{10};
    };
    struct Change {
        Seconds limit{10};
    };
    struct SavePng {
        std::string file;
    };
    struct RecordStats {
        std::string file;
    };

    /// A line that is no step, which shows when its turn comes.
    struct Mistake {
        std::string words;
    };

    std::string line;  // as written
    std::variant<Input, Wait, Settle, Change, SavePng, RecordStats, Mistake> what;

    /// None for an empty line or a comment; a failure says what is wrong with it.
    static Result<std::optional<LookStep>> parse(std::string_view line);
    static Input typing(std::string text);
};

}  // namespace velmora
