#pragma once

#include <malloc.h>

namespace velmora {

/// From now on blocks of a megabyte and more, pictures above all, go back to the system when they are freed.
/// By itself the C library would keep one for next time after it has seen one go, and a program that stays
/// for weeks would hold several. Once, before the first picture.
inline void returnFreedPictures() {
    constexpr int threshold = 1 << 20;
    mallopt(M_MMAP_THRESHOLD, threshold);
}

}  // namespace velmora
