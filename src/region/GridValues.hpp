#pragma once

#include "region/Grid2d.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

class SecondCore;

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

    // Room for `room` values (at most `keep`) before the lists have to grow.
    void Prepare(std::size_t keepCount, std::size_t room, bool withIds) {
        keep = keepCount;
        values.resize(std::min(room, keep));
        if (withIds)
            ids.resize(std::min(room, keep));
    }

    [[gnu::always_inline]] void AddValue(double value) {
        const auto at = static_cast<std::size_t>(valueCount);
        if (at < values.size())
            values[at] = value;
        else
            SpillValue(at, value);
        ++valueCount;
    }
    void AddId(std::int32_t id) {
        const auto at = static_cast<std::size_t>(idCount);
        if (at < ids.size())
            ids[at] = id;
        else if (at < keep)
            Grow(ids, at)[at] = id;
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
    }

    // Trims the lists to the values stored and sets the extremes of all values met,
    // sharing the scan with `second` when given.
    void Finish(SecondCore* second = nullptr);

  private:
    template <class T> T* Grow(GridVector<T>& list, std::size_t at) {
        list.resize(std::min(keep, std::max<std::size_t>(2 * list.size(), at + 1024)));
        return list.data();
    }
    [[gnu::noinline]] void SpillValue(std::size_t at, double value) {
        if (at < keep)
            Grow(values, at)[at] = value;
        else
            beyondKeep_.Add(value); // counted, not stored
    }

    Extremes beyondKeep_;
    Extremes known_;            // of values[0, knownCount_)
    std::size_t knownCount_ = 0;
};
