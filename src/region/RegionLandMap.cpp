#include "region/Region.hpp"

#include "project/Console.hpp"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>

int TideLevelOf(double tideWaterLevel) {
    if (std::isnan(tideWaterLevel))
        return 0;
    return static_cast<int>(
        std::clamp(std::trunc(tideWaterLevel), double{INT_MIN}, double{INT_MAX}));
}

int Region::TideNameFailure(int tideLevel) const {
    if (type != LSM_R)
        return 1;
    // The level is the three characters after the marker, read as atol reads them:
    // "_P5.dat" states 5 and "_P" at the very end states 0.
    long stated = 0;
    const std::size_t plus = inFileName.rfind("_P");
    if (plus != std::string::npos) {
        stated = std::strtol(inFileName.substr(plus + 2, 3).c_str(), nullptr, 10);
    } else {
        const std::size_t minus = inFileName.rfind("_M");
        if (minus == std::string::npos)
            return 2;
        stated = -std::strtol(inFileName.substr(minus + 2, 3).c_str(), nullptr, 10);
    }
    if (stated != tideLevel)
        return 3;
    return 0;
}

bool Region::CheckFileNameTide(int tideLevel) const {
    try {
        if (const int cause = TideNameFailure(tideLevel))
            throw cause;
    } catch (int cause) {
        switch (cause) {
        case 2:
            PrintErrorBlock(
                {"ERROR:REGION OBJECT METHOD",
                 "  ERROR-DETAIL:Abnormal action at Check Tide Method.",
                 "  ERROR-DETAIL:Particular attention should be given to \"Land Map file Name\" ."});
            break;
        case 3:
            PrintErrorBlock(
                {"ERROR:REGION OBJECT METHOD",
                 "  ERROR-DETAIL:Abnormal action at Check Tide Method.",
                 "  ERROR-DETAIL:TideWaterLevel(XML file)& Land Map File Name is INCONSISTENCY .",
                 "  ERROR-DETAIL:Particular attention should be given to \"XML file \" and \"Land Map file Name\" ."});
            break;
        default: // 1: not a land map
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Check Tide Method."});
            break;
        }
        return false;
    }
    return true;
}

namespace {

// The land map works on one byte per cell: the blocked steps of both structure maps and
// the cell's state. Cell (i, j) is byte j × nx + i, as in the grids.
constexpr std::uint8_t kA0 = 1 << 0; // first map blocks (i, j)-(i, j + 1)
constexpr std::uint8_t kA1 = 1 << 1; // first map blocks (i, j)-(i + 1, j)
constexpr std::uint8_t kB0 = 1 << 2; // second map, likewise
constexpr std::uint8_t kB1 = 1 << 3;
constexpr std::uint8_t kStateMask = 3 << 4;
constexpr std::uint8_t kSea = 0 << 4;     // 0.0: below the tide, open to the edge
constexpr std::uint8_t kPending = 1 << 4; // below the tide inside the ring, not reached yet
constexpr std::uint8_t kLand = 2 << 4;    // 1.0
constexpr std::uint8_t kBehind = 3 << 4;  // 2.0: reached past the first map's structures

// Topography beyond the float range counts as infinitely high or deep rather than being
// narrowed out of range.
float NarrowDepth(double value) {
    if (std::isnan(value))
        return std::numeric_limits<float>::quiet_NaN();
    if (value > FLT_MAX)
        return std::numeric_limits<float>::infinity();
    if (value < -FLT_MAX)
        return -std::numeric_limits<float>::infinity();
    return static_cast<float>(value);
}

float TideOf(int tideLevel) { return static_cast<float>(tideLevel * 0.01); }

// Kept: compared in single precision, as land maps have always been made, so a cell
// within float rounding of the tide level falls on the side it always has.
bool BelowTide(double depth, float tide) { return NarrowDepth(depth) - tide < 0.0f; }

// Cells still to be looked at from, first in first out. Each cell enters at most once,
// so the queue never holds more than the cells below the tide; it grows only as far as
// the front of the flood, which on real coasts is a thin line.
class CellQueue {
  public:
    void Push(std::ptrdiff_t cell) {
        if (size_ == capacity_)
            Grow();
        ring_[(head_ + size_) & (capacity_ - 1)] = cell;
        ++size_;
    }
    [[nodiscard]] bool Pop(std::ptrdiff_t& cell) {
        if (size_ == 0)
            return false;
        cell = ring_[head_];
        head_ = (head_ + 1) & (capacity_ - 1);
        --size_;
        return true;
    }

  private:
    void Grow() {
        const std::size_t capacity = capacity_ == 0 ? 4096 : 2 * capacity_;
        auto ring = std::make_unique<std::ptrdiff_t[]>(capacity);
        for (std::size_t k = 0; k < size_; ++k)
            ring[k] = ring_[(head_ + k) & (capacity_ - 1)];
        ring_ = std::move(ring);
        capacity_ = capacity;
        head_ = 0;
    }

    std::unique_ptr<std::ptrdiff_t[]> ring_;
    std::size_t capacity_ = 0; // a power of two
    std::size_t head_ = 0;
    std::size_t size_ = 0;
};

// Floods the pending cells from every cell whose state is sea or behind, through the
// steps that the flags F0 (j steps) and F1 (i steps) leave open, giving them `reached`.
//
// A pending cell takes the state of any neighbour it can step to and never loses it
// again, so the order in which cells are visited cannot change which cells end up
// reached: the repeated sweeps over the grid that this replaces reach exactly the cells
// connected to the sources through pending cells, which is what this visits, once each.
//
// Pending cells lie inside the outer ring, so all eight neighbours of a pending cell and
// of every queued cell exist.
template <std::uint8_t F0, std::uint8_t F1> class Flood {
  public:
    Flood(std::uint8_t* cells, std::ptrdiff_t nx, std::uint8_t reached)
        : cells_(cells), nx_(nx), reached_(reached) {}

    // Starts from the pending cell `c` when one of its neighbours is a source.
    void Seed(std::ptrdiff_t c) {
        if (State(c) != kPending)
            return;
        for (int dir = 0; dir < 8; ++dir) {
            const std::uint8_t from = State(c + Offset(dir));
            if ((from == kSea || from == kBehind) && Passes(c, dir)) {
                Reach(c);
                return;
            }
        }
    }

    void Run() {
        std::ptrdiff_t n;
        while (queue_.Pop(n)) {
            for (int dir = 0; dir < 8; ++dir) {
                // c is the cell that sees n in direction dir.
                const std::ptrdiff_t c = n - Offset(dir);
                if (State(c) == kPending && Passes(c, dir))
                    Reach(c);
            }
        }
    }

  private:
    std::uint8_t State(std::ptrdiff_t c) const { return cells_[c] & kStateMask; }
    bool Open(std::ptrdiff_t c, std::uint8_t flag) const { return (cells_[c] & flag) == 0; }
    void Reach(std::ptrdiff_t c) {
        cells_[c] = static_cast<std::uint8_t>((cells_[c] & ~kStateMask) | reached_);
        queue_.Push(c);
    }

    // Directions from a cell to its neighbours, as (di, dj): (0, -1), (+1, 0), (0, +1),
    // (-1, 0), (-1, -1), (+1, -1), (+1, +1), (-1, +1).
    std::ptrdiff_t Offset(int dir) const {
        switch (dir) {
        case 0:
            return -nx_;
        case 1:
            return 1;
        case 2:
            return nx_;
        case 3:
            return -1;
        case 4:
            return -nx_ - 1;
        case 5:
            return -nx_ + 1;
        case 6:
            return nx_ + 1;
        default:
            return nx_ - 1;
        }
    }

    // Whether cell c may step to its neighbour in direction dir. A diagonal step goes
    // round one of its two corners, each with its own pair of faces. Kept: the pairs are
    // exactly those the calculators' land maps have always been made with.
    bool Passes(std::ptrdiff_t c, int dir) const {
        const std::ptrdiff_t n = nx_;
        switch (dir) {
        case 0:
            return Open(c - n, F0);
        case 1:
            return Open(c, F1);
        case 2:
            return Open(c, F0);
        case 3:
            return Open(c - 1, F1);
        case 4:
            return (Open(c - 1 - n, F0) && Open(c - 1, F1)) ||
                   (Open(c - n, F0) && Open(c - 1 - n, F1));
        case 5:
            return (Open(c + 1 - n, F0) && Open(c, F1)) || (Open(c - n, F0) && Open(c - n, F1));
        case 6:
            return (Open(c + 1, F0) && Open(c, F1)) || (Open(c, F0) && Open(c + n, F1));
        default:
            return (Open(c - 1, F0) && Open(c - 1, F1)) || (Open(c, F0) && Open(c - 1 + n, F1));
        }
    }

    std::uint8_t* cells_;
    std::ptrdiff_t nx_;
    std::uint8_t reached_;
    CellQueue queue_;
};

} // namespace

bool Region::MakeLandMap(const Grid2d<double>& depth, Grid2d<std::int32_t, 2> mapA,
                         Grid2d<std::int32_t, 2> mapB, int tideLevel) {
    if (nx < 1 || ny < 1)
        return true;
    if (!depth.HasShape(nx, ny) || !mapA.HasShape(nx, ny) || !mapB.HasShape(nx, ny)) {
        PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                         "  ERROR-DETAIL:Abnormal action at Making Land Map Method.",
                         "  ERROR-DETAIL:Topography, structure maps and Land Map differ in size."});
        return false;
    }
    const std::ptrdiff_t columns = nx;
    const std::ptrdiff_t cellCount = columns * ny;
    // Every byte is written before it is read; the bytes become the map's codes.
    GridVector<std::uint8_t> cells(static_cast<std::size_t>(cellCount));

    const float tide = TideOf(tideLevel);
    const double* h = depth.Data();
    const std::int32_t* a = mapA.Data();
    const std::int32_t* b = mapB.Data();
    for (int j = 0; j < ny; ++j) {
        const bool edgeRow = j == 0 || j == ny - 1;
        for (int i = 0; i < nx; ++i) {
            const std::ptrdiff_t c = j * columns + i;
            std::uint8_t cell = 0;
            if (a[2 * c] != 0)
                cell |= kA0;
            if (a[2 * c + 1] != 0)
                cell |= kA1;
            if (b[2 * c] != 0)
                cell |= kB0;
            if (b[2 * c + 1] != 0)
                cell |= kB1;
            const bool below = BelowTide(h[c], tide);
            if (!below)
                cell |= kLand;
            else if (!edgeRow && i != 0 && i != nx - 1)
                cell |= kPending;
            // else below the tide on the outer ring: open sea, kSea being 0
            cells[c] = cell;
        }
    }
    // The maps are this call's own copies; only their flags are needed from here on.
    mapA.Release();
    mapB.Release();

    if (nx > 2 && ny > 2) {
        // First fill, past the first map's structures. Only the cells next to the outer
        // ring can have a sea neighbour to start from.
        Flood<kA0, kA1> fromEdge(cells.data(), columns, kSea);
        for (std::ptrdiff_t i = 1; i < columns - 1; ++i) {
            fromEdge.Seed(columns + i);
            fromEdge.Seed((ny - 2) * columns + i);
        }
        for (std::ptrdiff_t j = 2; j < ny - 2; ++j) {
            fromEdge.Seed(j * columns + 1);
            fromEdge.Seed(j * columns + columns - 2);
        }
        fromEdge.Run();

        // Second fill: what is still cut off may be reached past the second map's
        // structures, from the sea or from cells reached that way.
        Flood<kB0, kB1> pastStructures(cells.data(), columns, kBehind);
        for (std::ptrdiff_t c = 0; c < cellCount; ++c)
            pastStructures.Seed(c);
        pastStructures.Run();
    }

    // A map of three values takes a byte a cell rather than a double: the writers read
    // the codes through codeValues, which hold exactly the doubles once stored.
    for (std::uint8_t& cell : cells) {
        switch (cell & kStateMask) {
        case kSea:
            cell = 0;
            break;
        case kBehind:
            cell = 2;
            break;
        default: // land, and water cut off from the edge
            cell = 1;
            break;
        }
    }
    grid.Release();
    codeGrid.Adopt(nx, ny, std::move(cells));
    codeValues = {0.0, 1.0, 2.0};
    return true;
}

bool IsBelowTide(double depth, int tideLevel) { return BelowTide(depth, TideOf(tideLevel)); }
