#include "region/GridValues.hpp"

#include "region/SecondCore.hpp"

#include <cstdint>
#include <new>

#include <sys/mman.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

void Extremes::Append(const Extremes& later) {
    if (!later.any_)
        return;
    if (!any_) {
        *this = later;
        return;
    }
    if (!later.anyNumber_)
        return;
    if (!anyNumber_) {
        anyNumber_ = true;
        max_ = later.max_;
        min_ = later.min_;
        return;
    }
    max_ = max_ < later.max_ ? later.max_ : max_; // ties keep the earlier value
    min_ = later.min_ < min_ ? later.min_ : min_;
}

Extremes ExtremesOf(const double* values, std::size_t count) {
    Extremes result;
    if (count == 0)
        return result;
    result.any_ = true;
    result.first_ = values[0];
    std::size_t k = 0;
    while (k < count && values[k] != values[k])
        ++k;
    if (k == count)
        return result;
    const std::size_t firstNumber = k;
    // Four running pairs, so the comparisons do not wait on each other. A NaN never
    // wins a comparison, so the pairs pass over it.
    double max[4] = {values[k], values[k], values[k], values[k]};
    double min[4] = {values[k], values[k], values[k], values[k]};
    ++k;
#if defined(__SSE2__)
    // maxpd(v, m) is v > m ? v : m and minpd(v, m) is v < m ? v : m, m when v is a NaN:
    // the comparisons below, two lanes at a time.
    __m128d max01 = _mm_set1_pd(max[0]), max23 = max01;
    __m128d min01 = max01, min23 = max01;
    for (; k + 4 <= count; k += 4) {
        const __m128d v01 = _mm_loadu_pd(values + k);
        const __m128d v23 = _mm_loadu_pd(values + k + 2);
        max01 = _mm_max_pd(v01, max01);
        max23 = _mm_max_pd(v23, max23);
        min01 = _mm_min_pd(v01, min01);
        min23 = _mm_min_pd(v23, min23);
    }
    _mm_storeu_pd(max, max01);
    _mm_storeu_pd(max + 2, max23);
    _mm_storeu_pd(min, min01);
    _mm_storeu_pd(min + 2, min23);
#else
    for (; k + 4 <= count; k += 4) {
        for (std::size_t lane = 0; lane < 4; ++lane) {
            const double value = values[k + lane];
            max[lane] = max[lane] < value ? value : max[lane];
            min[lane] = value < min[lane] ? value : min[lane];
        }
    }
#endif
    for (; k < count; ++k) {
        max[0] = max[0] < values[k] ? values[k] : max[0];
        min[0] = values[k] < min[0] ? values[k] : min[0];
    }
    for (std::size_t lane = 1; lane < 4; ++lane) {
        max[0] = max[0] < max[lane] ? max[lane] : max[0];
        min[0] = min[lane] < min[0] ? min[lane] : min[0];
    }
    // Equal doubles are the same bits but for -0.0 and 0.0, where the first one wins.
    const auto firstZero = [&] { return *std::find(values + firstNumber, values + count, 0.0); };
    result.anyNumber_ = true;
    result.max_ = max[0] == 0.0 ? firstZero() : max[0];
    result.min_ = min[0] == 0.0 ? firstZero() : min[0];
    return result;
}

void GridValues::Finish(SecondCore* second) {
    values.resize(std::min(values.size(), static_cast<std::size_t>(valueCount)));
    ids.resize(std::min(ids.size(), static_cast<std::size_t>(idCount)));
    const std::size_t from = std::min(knownCount_, values.size());
    const double* rest = values.data() + from;
    const std::size_t restCount = values.size() - from;
    const std::size_t half = restCount / 2;
    Extremes later;
    const auto scanLater = [&] { later = ExtremesOf(rest + half, restCount - half); };
    const bool split = second != nullptr && half > 0;
    if (split)
        second->Start(scanLater);
    else
        scanLater();
    extremes = from == knownCount_ ? known_ : ExtremesOf(values.data(), from);
    extremes.Append(ExtremesOf(rest, half));
    if (split && second->TakeBack())
        scanLater();
    else if (split)
        second->Wait();
    extremes.Append(later);
    extremes.Append(beyondKeep_);
}

void GridValues::CodeUpTo(std::size_t end) {
    end = std::min(end, values.size());
    if (end <= coded_)
        return;
    // Sized like the values so that the codes never move; pages of it are taken only as
    // codes are written.
    if (codes.size() < values.size())
        codes.resize(values.size());
    const double* v = values.data();
    std::uint8_t* out = codes.data();
    for (std::size_t k = coded_; k < end; ++k) {
        const int code = codeTable.CodeOf(v[k]);
        if (code < 0) {
            Uncode();
            return;
        }
        out[k] = static_cast<std::uint8_t>(code);
    }
    // The whole pages of values now held as codes are not needed again. Only large lists
    // are blocks of their own; values of a small one stay where they are.
    if (GridVector<double>::allocator_type::IsHuge(values.capacity())) {
        constexpr std::uintptr_t kPage = kHugePageBytes;
        const auto origin = reinterpret_cast<std::uintptr_t>(v);
        const auto first = reinterpret_cast<std::uintptr_t>(v + coded_) / kPage * kPage;
        const auto last = reinterpret_cast<std::uintptr_t>(v + end) / kPage * kPage;
        const auto start = std::max(first, origin);
        if (last > start && start % kPage == 0)
            GiveBackPages(start, last - start);
    }
    coded_ = end;
}

void GridValues::GiveBackPages(std::uintptr_t start, std::size_t bytes) {
    constexpr std::uintptr_t kPage = kHugePageBytes;
    const auto origin = reinterpret_cast<std::uintptr_t>(values.data());
    // While a text reader goes, nothing past the values it has counted is written yet: the
    // pages move there, ahead of it, rather than go back to the system, so that it writes
    // into memory the process has rather than into fresh pages the kernel must clear
    // first. A fresh, empty mapping takes their old place.
    const auto frontier =
        (origin + static_cast<std::uintptr_t>(valueCount) * sizeof(double) + kPage - 1) / kPage *
        kPage;
    const std::uintptr_t limit = (origin + values.capacity() * sizeof(double)) / kPage * kPage;
    void* const from = reinterpret_cast<void*>(start);
    if (static_cast<std::size_t>(valueCount) >= coded_ && frontier >= start + bytes &&
        frontier + bytes <= limit) {
        void* const to = reinterpret_cast<void*>(frontier);
        if (mremap(from, bytes, bytes, MREMAP_MAYMOVE | MREMAP_FIXED, to) != MAP_FAILED) {
            if (mmap(from, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
                     -1, 0) != MAP_FAILED)
                return;
            // No mapping for the old place: the pages go back there, and are given back.
            if (mremap(to, bytes, bytes, MREMAP_MAYMOVE | MREMAP_FIXED, from) == MAP_FAILED)
                throw std::bad_alloc();
        }
    }
    (void)madvise(from, bytes, MADV_DONTNEED);
}

void GridValues::Uncode() {
    for (std::size_t k = 0; k < coded_; ++k)
        values[k] = codeTable.ValueOf(codes[k]);
    coding_ = false;
    coded_ = 0;
    GridVector<std::uint8_t>().swap(codes);
}
