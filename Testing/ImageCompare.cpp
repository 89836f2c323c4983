#include "Testing/ImageCompare.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace velmora {
namespace {

constexpr int window = 8, step = 4;

/// Similarity of the windows whose top left samples are `a` and `b` (Wang and others, 2004).
double similarity(const std::uint8_t* a, int strideA, const std::uint8_t* b, int strideB) {
    int sumA = 0, sumB = 0, squares = 0, products = 0;
    for (int y = 0; y < window; ++y) {
        for (int x = 0; x < window; ++x) {
            const int p = a[std::ptrdiff_t{y} * strideA + x], q = b[std::ptrdiff_t{y} * strideB + x];
            sumA += p;
            sumB += q;
            squares += p * p + q * q;
            products += p * q;
        }
    }
    constexpr double n = window * window;
    constexpr double c1 = 0.01 * 0.01 * 255 * 255, c2 = 0.03 * 0.03 * 255 * 255;
    const double meanA = sumA / n, meanB = sumB / n;
    const double variances = squares / n - meanA * meanA - meanB * meanB;
    const double covariance = products / n - meanA * meanB;
    return (2 * meanA * meanB + c1) * (2 * covariance + c2) /
           ((meanA * meanA + meanB * meanB + c1) * (variances + c2));
}

struct Summary {
    double mean = 0, worst = 0;
};

Summary compare(const GrayView& a, const GrayView& b) {
    if (a.width != b.width || a.height != b.height || a.width < window || a.height < window) return {};
    double total = 0, worst = 1;
    std::size_t count = 0;
    for (int y = 0; y + window <= a.height; y += step) {
        for (int x = 0; x + window <= a.width; x += step) {
            const double value = similarity(a.data + std::ptrdiff_t{y} * a.stride + x, a.stride,
                                            b.data + std::ptrdiff_t{y} * b.stride + x, b.stride);
            total += value;
            worst = std::min(worst, value);
            ++count;
        }
    }
    return {total / static_cast<double>(count), worst};
}

double squaredError(const GrayView& a, const GrayView& b) {
    double total = 0;
    for (int y = 0; y < a.height; ++y) {
        for (int x = 0; x < a.width; ++x) {
            const int difference =
                a.data[std::ptrdiff_t{y} * a.stride + x] - b.data[std::ptrdiff_t{y} * b.stride + x];
            total += difference * difference;
        }
    }
    return total;
}

}  // namespace

GrayView lumaOf(const Picture& picture) {
    return {picture.y, picture.size.width, picture.size.height, picture.strideY};
}

double ssimLuma(const GrayView& a, const GrayView& b) {
    return compare(a, b).mean;
}
double ssimLuma(const Picture& a, const Picture& b) {
    return ssimLuma(lumaOf(a), lumaOf(b));
}
double worstWindow(const GrayView& a, const GrayView& b) {
    return compare(a, b).worst;
}

double psnr(const Picture& a, const Picture& b) {
    if (a.size != b.size) return 0;
    const int halfWidth = (a.size.width + 1) / 2, halfHeight = (a.size.height + 1) / 2;
    const double error =
        squaredError(lumaOf(a), lumaOf(b)) +
        squaredError({a.u, halfWidth, halfHeight, a.strideU}, {b.u, halfWidth, halfHeight, b.strideU}) +
        squaredError({a.v, halfWidth, halfHeight, a.strideV}, {b.v, halfWidth, halfHeight, b.strideV});
    if (error == 0) return 99;
    const double samples = double(a.size.width) * a.size.height + 2.0 * halfWidth * halfHeight;
    return std::min(99.0, 10 * std::log10(255.0 * 255.0 * samples / error));
}

GrayView partOf(const GrayView& view, const PixelRect& rect) {
    return {view.data + std::ptrdiff_t{rect.y} * view.stride + rect.x, rect.width, rect.height, view.stride};
}

}  // namespace velmora
