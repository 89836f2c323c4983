#include "Platform/Linux/Discovery/AvahiStack.h"

#include <avahi-common/malloc.h>

namespace velmora {

TxtList::TxtList(const ServiceDiscovery::TxtRecord& txt) {
    constexpr std::size_t longest = 255;
    for (const auto& [key, value] : txt) {
        if (key.empty() || key.size() + 1 + value.size() > longest) continue;
        list = avahi_string_list_add_pair_arbitrary(
            list, key.c_str(), reinterpret_cast<const std::uint8_t*>(value.data()), value.size());
    }
}

ServiceDiscovery::TxtRecord txtRecordOf(AvahiStringList* list) {
    ServiceDiscovery::TxtRecord txt;
    for (; list; list = avahi_string_list_get_next(list)) {
        char* key = nullptr;
        char* value = nullptr;
        std::size_t size = 0;
        if (avahi_string_list_get_pair(list, &key, &value, &size) != 0) continue;
        // The first of several equal keys counts (RFC 6763 section 6.4); Avahi's lists begin with the last.
        txt.insert_or_assign(key, value ? std::string(value, size) : std::string());
        avahi_free(key);
        avahi_free(value);
    }
    return txt;
}

}  // namespace velmora
