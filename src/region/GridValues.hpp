#pragma once

#include "region/Grid2d.hpp"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

class SecondCore;

// Distinct values met, as their bits, each with its code: at most 256, looked up by a
// small open-addressed table.
class ValueCodes {
  public:
    static constexpr std::size_t kMaxCodes = 256;
    // The code of `value`, a new one for a value not met before; -1 when all 256 codes
    // are taken by other values.
    [[nodiscard]] int CodeOf(double value) {
        const auto bits = std::bit_cast<std::uint64_t>(value);
        if (bits == lastBits_ && lastCode_ >= 0)
            return lastCode_;
        std::size_t slot = Slot(bits);
        while (slots_[slot] != 0 && values_[slots_[slot] - 1] != bits)
            slot = (slot + 1) % kSlots;
        if (slots_[slot] == 0) {
            if (count_ == kMaxCodes)
                return -1;
            values_[count_] = bits;
            slots_[slot] = static_cast<std::uint16_t>(++count_);
        }
        lastBits_ = bits;
        lastCode_ = slots_[slot] - 1;
        return lastCode_;
    }
    [[nodiscard]] std::size_t Count() const { return count_; }
    [[nodiscard]] double ValueOf(std::size_t code) const {
        return std::bit_cast<double>(values_[code]);
    }

  private:
    static constexpr std::size_t kSlots = 1024; // a power of two, four times kMaxCodes
    static std::size_t Slot(std::uint64_t bits) {
        return static_cast<std::size_t>((bits * 0x9E3779B97F4A7C15ull) >> 54) % kSlots;
    }
    std::uint64_t values_[kMaxCodes] = {};
    std::uint16_t slots_[kSlots] = {}; // code + 1, 0 for an empty slot
    std::size_t count_ = 0;
    std::uint64_t lastBits_ = 0;
    int lastCode_ = -1;
};

// Largest and smallest value of a sequence as a scan for the largest and the smallest
// element finds them: the first of equal values wins (so -0.0 before 0.0 stays -0.0), and
// a NaN is never taken over, so a NaN first in the sequence stays the answer. Both are 0
// while no value has been met. Parts of a sequence can be gathered apart and joined in
// order with the same answer.
class Extremes {
  public:
    void Add(double value) {
        if (!any_) {
            any_ = true;
            first_ = value;
        }
        if (value != value)
            return;
        if (!anyNumber_) {
            anyNumber_ = true;
            max_ = value;
            min_ = value;
            return;
        }
        max_ = max_ < value ? value : max_;
        min_ = value < min_ ? value : min_;
    }

    // As if the values behind `later` had been added after these.
    void Append(const Extremes& later);

    [[nodiscard]] double Max() const { return first_ != first_ ? first_ : max_; }
    [[nodiscard]] double Min() const { return first_ != first_ ? first_ : min_; }

  private:
    friend Extremes ExtremesOf(const double* values, std::size_t count);

    bool any_ = false;
    double first_ = 0.0;     // the answer when it is a NaN
    bool anyNumber_ = false; // the rest is over the values that are not NaN
    double max_ = 0.0;
    double min_ = 0.0;
};

// The Extremes of values[0, count), the same as adding them one by one.
[[nodiscard]] Extremes ExtremesOf(const double* values, std::size_t count);

// The values of a grid file as the readers meet them, before the count is checked.
// Only the first `keep` values (the count the header announces) are stored, so a file
// holding more than it announces cannot make the list outgrow the grid; the rest are
// still counted and take part in the extremes. The lists are sized ahead without being
// written, grow if the first guess was short, and are trimmed by Finish().
struct GridValues {
    GridVector<double> values;
    GridVector<std::int32_t> ids; // construction-line identifiers, paired with values
    std::size_t keep = 0;
    std::int64_t valueCount = 0;
    std::int64_t idCount = 0;
    Extremes extremes; // set by Finish()

    // Zeros the lists hold without their being written: set by Prepare for large lists
    // of construction lines, which are zero but where a structure crosses a cell, so
    // that only the pages holding structures become the process's memory.
    bool valuesFresh = false;
    bool idsFresh = false;

    // Codes of the values in place of the values themselves (set before Prepare with
    // Code()): for grids of few values, each value stored once and every cell a byte.
    // The values are coded eight megabytes at a time as the reader goes, and the pages
    // that held them serve the values still to come, so the values are never held whole.
    // Once a 257th value is met the values coded so far are put back and the list is kept
    // as it is.
    GridVector<std::uint8_t> codes;
    ValueCodes codeTable;

    void Code() { coding_ = true; }
    // Codes what is not coded yet, after Finish; false when the values took more codes
    // than there are, which leaves them in `values`.
    bool CodeRest() {
        if (coding_)
            CodeUpTo(values.size());
        if (coding_)
            codes.resize(values.size());
        return coding_;
    }

    // Room for `room` values (at most `keep`) before the lists have to grow.
    void Prepare(std::size_t keepCount, std::size_t room, bool withIds) {
        keep = keepCount;
        const std::size_t size = std::min(room, keep);
        if (!withIds) {
            values.resize(size);
            return;
        }
        const FreshHugeBlocks zeros(FreshHugeBlocks::kSparse);
        values.resize(size);
        ids.resize(size);
        valuesFresh = GridVector<double>::allocator_type::IsHuge(size);
        idsFresh = GridVector<std::int32_t>::allocator_type::IsHuge(size);
    }

    [[gnu::always_inline]] void AddValue(double value) {
        const auto at = static_cast<std::size_t>(valueCount);
        if (at < values.size())
            values[at] = value;
        else
            SpillValue(at, value);
        ++valueCount;
    }
    // AddValue for the values paired with identifiers, which leaves a zero unwritten
    // where the list is fresh.
    void AddPairedValue(double value) {
        if (valuesFresh && std::bit_cast<std::uint64_t>(value) == 0 &&
            static_cast<std::size_t>(valueCount) < values.size())
            ++valueCount;
        else
            AddValue(value);
    }
    void AddId(std::int32_t id) {
        const auto at = static_cast<std::size_t>(idCount);
        if (at < ids.size()) {
            if (id != 0 || !idsFresh) // a fresh list holds the zero already
                ids[at] = id;
        } else if (at < keep) {
            Grow(ids, at)[at] = id;
        }
        ++idCount;
    }

    // What has been added so far, to take a line's values back.
    struct Mark {
        std::int64_t valueCount;
        std::int64_t idCount;
        Extremes beyondKeep;
    };
    [[nodiscard]] Mark Here() const { return {valueCount, idCount, beyondKeep_}; }
    void Restore(const Mark& mark) {
        if (static_cast<std::size_t>(mark.valueCount) < coded_)
            Uncode();
        // Values taken back from a fresh list are zeros again, as a zero read later in
        // their place is not written.
        if (valuesFresh && mark.valueCount < valueCount)
            std::fill(values.data() + std::min<std::size_t>(mark.valueCount, values.size()),
                      values.data() + std::min<std::size_t>(valueCount, values.size()), 0.0);
        if (idsFresh && mark.idCount < idCount)
            std::fill(ids.data() + std::min<std::size_t>(mark.idCount, ids.size()),
                      ids.data() + std::min<std::size_t>(idCount, ids.size()), 0);
        valueCount = mark.valueCount;
        idCount = mark.idCount;
        beyondKeep_ = mark.beyondKeep;
        if (static_cast<std::size_t>(mark.valueCount) < knownCount_) {
            known_ = {};
            knownCount_ = 0;
        }
    }

    // A reader that has just written values[from, from + count) may give their extremes
    // while the values are still in cache; Finish then scans only what follows the run of
    // values given this way from the start.
    void NoteExtremes(std::size_t from, std::size_t count, const Extremes& part) {
        if (from != knownCount_)
            return;
        known_.Append(part);
        knownCount_ += count;
        if (coding_ && knownCount_ - coded_ >= kCodeStep)
            CodeUpTo(knownCount_);
    }

    // Trims the lists to the values stored and sets the extremes of all values met,
    // sharing the scan with `second` when given.
    void Finish(SecondCore* second = nullptr);

  private:
    template <class T> T* Grow(GridVector<T>& list, std::size_t at) {
        const std::size_t size = std::min(keep, std::max<std::size_t>(2 * list.size(), at + 1024));
        if (valuesFresh || idsFresh) {
            // A fresh list stays fresh past what it held: its zeros are never written.
            const FreshHugeBlocks zeros(FreshHugeBlocks::kSparse);
            list.resize(size);
        } else {
            list.resize(size);
        }
        return list.data();
    }
    [[gnu::noinline]] void SpillValue(std::size_t at, double value) {
        if (at < keep)
            Grow(values, at)[at] = value;
        else
            beyondKeep_.Add(value); // counted, not stored
    }

    // Codes values[coded_, end) and gives back the memory of the values coded.
    void CodeUpTo(std::size_t end);
    // Puts the coded values back into `values` and stops coding.
    void Uncode();
    // Lets the pages [start, start + bytes) of `values`, all of them coded, go.
    void GiveBackPages(std::uintptr_t start, std::size_t bytes);
    static constexpr std::size_t kCodeStep = std::size_t{1} << 20; // values, 8 MB
    bool coding_ = false;
    std::size_t coded_ = 0; // values[0, coded_) live in `codes` only

    Extremes beyondKeep_;
    Extremes known_;            // of values[0, knownCount_)
    std::size_t knownCount_ = 0;
};
