#include "Platform/Linux/Capture/Bt709.h"

#include <cstddef>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace velmora::Bt709 {
namespace {

/// Two rows of source and what they become; all pointers at the left edge.
struct RowPair {
    const std::uint8_t* upper;
    const std::uint8_t* lower;
    std::uint8_t* lumaUpper;
    std::uint8_t* lumaLower;
    std::uint8_t* u;
    std::uint8_t* v;
};

std::uint8_t luma(const std::uint8_t* p) {
    return static_cast<std::uint8_t>(((8 * p[0] + 79 * p[1] + 23 * p[2] + 64) >> 7) + 16);
}

int meanRoundedUp(int a, int b) {
    return (a + b + 1) >> 1;
}

void convertPlain(const RowPair& rows, int from, int width) {
    for (int x = from; x < width; x += 2) {
        const std::uint8_t* upper = rows.upper + 4 * x;
        const std::uint8_t* lower = rows.lower + 4 * x;
        rows.lumaUpper[x] = luma(upper);
        rows.lumaUpper[x + 1] = luma(upper + 4);
        rows.lumaLower[x] = luma(lower);
        rows.lumaLower[x + 1] = luma(lower + 4);
        int mean[3];
        for (int c = 0; c < 3; ++c) {
            mean[c] =
                meanRoundedUp(meanRoundedUp(upper[c], lower[c]), meanRoundedUp(upper[c + 4], lower[c + 4]));
        }
        const auto [b, g, r] = mean;
        rows.u[x / 2] = static_cast<std::uint8_t>(((112 * b - 86 * g - 26 * r + 128) >> 8) + 128);
        rows.v[x / 2] = static_cast<std::uint8_t>(((112 * r - 102 * g - 10 * b + 128) >> 8) + 128);
    }
}

#if defined(__x86_64__)
#define VELMORA_AVX2 __attribute__((target("avx2")))

VELMORA_AVX2 inline __m256i load(const std::uint8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

/// Luma of 32 pixels, eight a register. The horizontal sums work in 128-bit lanes, hence the permutation.
VELMORA_AVX2 inline void storeLuma(std::uint8_t* out, const __m256i (&p)[4]) {
    const __m256i weights = _mm256_set1_epi32(0x00174f08);  // X 0, R 23, G 79, B 8
    const __m256i half = _mm256_set1_epi16(64);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    __m256i a = _mm256_hadd_epi16(_mm256_maddubs_epi16(p[0], weights), _mm256_maddubs_epi16(p[1], weights));
    __m256i b = _mm256_hadd_epi16(_mm256_maddubs_epi16(p[2], weights), _mm256_maddubs_epi16(p[3], weights));
    a = _mm256_srli_epi16(_mm256_add_epi16(a, half), 7);
    b = _mm256_srli_epi16(_mm256_add_epi16(b, half), 7);
    __m256i y = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(a, b), order);
    y = _mm256_add_epi8(y, _mm256_set1_epi8(16));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), y);
}

/// Means of horizontal neighbours: from registers of pixels 0...7 and 8...15 to one of 8, of which lane 0
/// holds blocks 0, 1, 4, 5 and lane 1 blocks 2, 3, 6, 7.
VELMORA_AVX2 inline __m256i pairMeans(__m256i a, __m256i b) {
    const __m256 left = _mm256_castsi256_ps(a), right = _mm256_castsi256_ps(b);
    return _mm256_avg_epu8(_mm256_castps_si256(_mm256_shuffle_ps(left, right, 0x88)),
                           _mm256_castps_si256(_mm256_shuffle_ps(left, right, 0xdd)));
}

VELMORA_AVX2 inline __m256i chroma(__m256i a, __m256i b, __m256i weights) {
    const __m256i sum = _mm256_hadd_epi16(_mm256_maddubs_epi16(a, weights), _mm256_maddubs_epi16(b, weights));
    return _mm256_srai_epi16(_mm256_add_epi16(sum, _mm256_set1_epi16(128)), 8);
}

/// Returns how many pixels of the row were done: the largest multiple of 32.
VELMORA_AVX2 int convertAvx2(const RowPair& rows, int width) {
    const __m256i weightsU = _mm256_set1_epi32(0x00e6aa70);  // R -26, G -86, B 112
    const __m256i weightsV = _mm256_set1_epi32(0x00709af6);  // R 112, G -102, B -10
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i upper[4], lower[4], mean[4];
        for (int i = 0; i < 4; ++i) {
            upper[i] = load(rows.upper + 4 * x + 32 * i);
            lower[i] = load(rows.lower + 4 * x + 32 * i);
            mean[i] = _mm256_avg_epu8(upper[i], lower[i]);
        }
        storeLuma(rows.lumaUpper + x, upper);
        storeLuma(rows.lumaLower + x, lower);
        const __m256i a = pairMeans(mean[0], mean[1]), b = pairMeans(mean[2], mean[3]);
        // Each lane: eight bytes of U, then eight of V, in pairs of blocks that alternate between the lanes.
        const __m256i both =
            _mm256_add_epi8(_mm256_packs_epi16(chroma(a, b, weightsU), chroma(a, b, weightsV)),
                            _mm256_set1_epi8(static_cast<char>(128)));
        const __m128i even = _mm256_castsi256_si128(both), odd = _mm256_extracti128_si256(both, 1);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(rows.u + x / 2), _mm_unpacklo_epi16(even, odd));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(rows.v + x / 2), _mm_unpackhi_epi16(even, odd));
    }
    return x;
}
#else
int convertAvx2(const RowPair&, int) {
    return 0;
}
#endif

Kernel best() {
    static const Kernel kernel = isSupported(Kernel::avx2) ? Kernel::avx2 : Kernel::plain;
    return kernel;
}

}  // namespace

bool isSupported(Kernel kernel) {
    if (kernel == Kernel::plain) return true;
#if defined(__x86_64__)
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

bool convert(const std::uint8_t* bgrx, int stride, PictureBuffer& picture, const PixelRect& rect) {
    return convert(bgrx, stride, picture, rect, best());
}

bool convert(const std::uint8_t* bgrx, int stride, PictureBuffer& picture, const PixelRect& rect,
             Kernel kernel) {
    const bool even = ((rect.x | rect.y | rect.width | rect.height) & 1) == 0;
    if (!even || rect.x < 0 || rect.y < 0 || rect.isEmpty() || rect.width > picture.size.width - rect.x ||
        rect.height > picture.size.height - rect.y) {
        return false;
    }
    for (int y = rect.y; y < rect.y + rect.height; y += 2) {
        const auto at = [x = rect.x](auto* plane, int rowBytes, int row, int pixelBytes) {
            return plane + static_cast<std::ptrdiff_t>(row) * rowBytes +
                   static_cast<std::ptrdiff_t>(x) * pixelBytes;
        };
        const std::ptrdiff_t chromaOffset =
            static_cast<std::ptrdiff_t>(y / 2) * picture.strideUV + rect.x / 2;
        const RowPair rows{.upper = at(bgrx, stride, y, 4),
                           .lower = at(bgrx, stride, y + 1, 4),
                           .lumaUpper = at(picture.y, picture.strideY, y, 1),
                           .lumaLower = at(picture.y, picture.strideY, y + 1, 1),
                           .u = picture.u + chromaOffset,
                           .v = picture.v + chromaOffset};
        const int done = kernel == Kernel::avx2 ? convertAvx2(rows, rect.width) : 0;
        convertPlain(rows, done, rect.width);
    }
    return true;
}

}  // namespace velmora::Bt709
