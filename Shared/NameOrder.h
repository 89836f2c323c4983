#pragma once

#include <memory>
#include <string_view>

namespace velmora {

/// The order of names in lists for people: that of the user's language, upper and lower case alike. Bad UTF-8
/// is allowed. Any one thread.
class NameOrder {
public:
    NameOrder();
    ~NameOrder();

    /// Whether `left` comes before `right`.
    bool operator()(std::string_view left, std::string_view right) const;

private:
    struct Rules;
    std::unique_ptr<Rules> rules_;
};

}  // namespace velmora
