#include "Shared/Uuid.h"

#include <fmt/format.h>

#include <cstdint>
#include <random>

namespace velmora {

std::string newUuid() {
    std::random_device random;  // the system's secure source, with this library
    const auto bits64 = [&random] { return (std::uint64_t{random()} << 32) | random(); };
    const std::uint64_t high = (bits64() & ~std::uint64_t{0xF000}) | 0x4000;
    const std::uint64_t low = (bits64() & ~(std::uint64_t{3} << 62)) | (std::uint64_t{2} << 62);
    return fmt::format("{:08X}-{:04X}-{:04X}-{:04X}-{:012X}", high >> 32, (high >> 16) & 0xFFFF,
                       high & 0xFFFF, low >> 48, low & 0xFFFF'FFFF'FFFF);
}

}  // namespace velmora
