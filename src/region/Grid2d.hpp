#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

// Blocks of whole 2 MB pages, aligned to them, which may be backed by huge pages. The last
// block given back is kept and serves the next request it is large enough for, its
// contents as they were; any other block is fresh from the kernel: it reads as zeros until
// written and takes no memory until then. AllocateHuge throws std::bad_alloc when the
// memory is not there.
inline constexpr std::size_t kHugeBlockBytes = std::size_t{8} << 20; // and larger
inline constexpr std::size_t kHugePageBytes = std::size_t{2} << 20;  // blocks start on one
void* AllocateHuge(std::size_t bytes);
void DeallocateHuge(void* p, std::size_t bytes) noexcept;
// Gives the kept block back to the kernel.
void ReleaseSpareHugeBlock() noexcept;

// While one lives, this thread's large blocks all come fresh from the kernel, zeros. A
// block for a grid written in few places (kSparse) is left in small pages: one value
// written into a huge page would make all 2 MB of it the process's, and a grid of
// structures along a coast touches every huge page of its rows.
class FreshHugeBlocks {
  public:
    enum Use { kDense, kSparse };
    explicit FreshHugeBlocks(Use use = kDense);
    ~FreshHugeBlocks();
    FreshHugeBlocks(const FreshHugeBlocks&) = delete;
    FreshHugeBlocks& operator=(const FreshHugeBlocks&) = delete;

  private:
    bool savedFresh_;
    bool savedSparse_;
};

// Allocator whose resize() leaves new elements of trivial types unwritten, so a reader can
// size a list and fill it without writing every value twice (or touching memory it may
// never use).
template <class T> struct UninitialisedAllocator : std::allocator<T> {
    template <class U> struct rebind { using other = UninitialisedAllocator<U>; };
    UninitialisedAllocator() = default;
    template <class U> UninitialisedAllocator(const UninitialisedAllocator<U>&) noexcept {}

    template <class U> void construct(U* p) noexcept(std::is_nothrow_default_constructible_v<U>) {
        ::new (static_cast<void*>(p)) U;
    }
    template <class U, class... Args> void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }

    // A grid of millions of cells is most of a run's memory, and faulting it in page by
    // page costs more than reading the file it comes from: large blocks ask the kernel for
    // huge pages, which take one fault per 2 MB.
    T* allocate(std::size_t n) {
        if (IsHuge(n)) {
            if (n > std::size_t(-1) / sizeof(T))
                throw std::bad_array_new_length();
            return static_cast<T*>(AllocateHuge(n * sizeof(T)));
        }
        return std::allocator<T>::allocate(n);
    }
    void deallocate(T* p, std::size_t n) noexcept {
        if (IsHuge(n))
            DeallocateHuge(p, n * sizeof(T));
        else
            std::allocator<T>::deallocate(p, n);
    }

    // Whether a block of n elements comes from AllocateHuge: zeros until written only
    // under FreshHugeBlocks.
    static constexpr bool IsHuge(std::size_t n) { return n > kHugeBlockBytes / sizeof(T); }
};

// The storage of grids, and of value lists that become grids.
template <class T> using GridVector = std::vector<T, UninitialisedAllocator<T>>;

// One contiguous buffer of nx × ny cells, each holding kPerCell values of type T.
//
// Storage is in grid-file order: row j = 0 first, x fastest, so cell (i, j) starts at
// value (j × nx + i) × kPerCell. Readers and writers therefore make one straight pass,
// and a list of values read from a file becomes the grid without a copy (Adopt).
//
// Indexing keeps the grid[i][j] form (i along x, j along y):
//   Grid2d<double>      g;  g[i][j] and g(i, j) are the double of cell (i, j);
//   Grid2d<int32_t, 2>  p;  p[i][j] and p(i, j) point at the cell's two values, so
//                           p[i][j][k] reads value k of the cell.
// Indices are not checked in release builds.
template <class T, int kPerCell = 1> class Grid2d {
    static_assert(kPerCell >= 1);

  public:
    using value_type = T;
    // A cell of a single-valued grid is its value; a cell of a multi-valued grid is a
    // pointer to its kPerCell values.
    using CellRef = std::conditional_t<kPerCell == 1, T&, T*>;
    using ConstCellRef = std::conditional_t<kPerCell == 1, const T&, const T*>;

    // Column i seen as a list of ny cells: the middle step of grid[i][j].
    template <class Cell, class Ptr> class ColumnView {
      public:
        ColumnView(Ptr first, std::size_t stride, int rows)
            : first_(first), stride_(stride), rows_(rows) {}
        Cell operator[](int j) const {
            assert(j >= 0 && j < rows_);
            Ptr cell = first_ + static_cast<std::size_t>(j) * stride_;
            if constexpr (kPerCell == 1)
                return *cell;
            else
                return cell;
        }
        [[nodiscard]] int size() const { return rows_; }

      private:
        Ptr first_;
        std::size_t stride_;
        int rows_;
    };
    using Column = ColumnView<CellRef, T*>;
    using ConstColumn = ColumnView<ConstCellRef, const T*>;

    Grid2d() = default;

    // nx columns of ny cells, every value set to `fill`. Negative sizes give no cells.
    void Assign(int nx, int ny, const T& fill) {
        SetShape(nx, ny);
        const std::size_t count = CellCount() * kPerCell;
        if (UninitialisedAllocator<T>::IsHuge(count) && IsZeroBytes(fill)) {
            // A large grid of zeros is fresh memory left unwritten: maps that stay zero
            // in most cells then cost neither the time to write them nor the memory. The
            // grids of several values a cell are the structure maps, zero but for the
            // cells a structure crosses.
            GridVector<T> fresh;
            {
                const FreshHugeBlocks zeros(kPerCell > 1 ? FreshHugeBlocks::kSparse
                                                         : FreshHugeBlocks::kDense);
                fresh.resize(count);
            }
            values_.swap(fresh);
            return;
        }
        values_.assign(count, fill);
    }

    // Takes over `values`, which must hold nx × ny × kPerCell values in file order.
    // The list's storage becomes the grid's, so nothing is copied.
    void Adopt(int nx, int ny, GridVector<T>&& values) {
        SetShape(nx, ny);
        assert(values.size() == CellCount() * kPerCell);
        values_ = std::move(values);
    }

    // Frees the cells. The column count stays; every column becomes empty.
    void Release() {
        ny_ = 0;
        GridVector<T>().swap(values_);
    }

    [[nodiscard]] int Columns() const { return nx_; }
    [[nodiscard]] int Rows() const { return ny_; }
    [[nodiscard]] bool Empty() const { return values_.empty(); }
    [[nodiscard]] bool HasShape(int nx, int ny) const {
        return nx_ == nx && ny_ == ny && values_.size() == CellCount() * kPerCell;
    }

    CellRef operator()(int i, int j) {
        T* cell = values_.data() + CheckedOffset(i, j);
        if constexpr (kPerCell == 1)
            return *cell;
        else
            return cell;
    }
    ConstCellRef operator()(int i, int j) const {
        const T* cell = values_.data() + CheckedOffset(i, j);
        if constexpr (kPerCell == 1)
            return *cell;
        else
            return cell;
    }
    Column operator[](int i) {
        assert(i >= 0 && i < nx_);
        return Column(values_.data() + Offset(i, 0), Stride(), ny_);
    }
    ConstColumn operator[](int i) const {
        assert(i >= 0 && i < nx_);
        return ConstColumn(values_.data() + Offset(i, 0), Stride(), ny_);
    }

    // All values in file order (row j = 0 first, x fastest, kPerCell per cell).
    [[nodiscard]] T* Data() { return values_.data(); }
    [[nodiscard]] const T* Data() const { return values_.data(); }
    [[nodiscard]] std::size_t ValueCount() const { return values_.size(); }

  private:
    static bool IsZeroBytes(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        unsigned char bytes[sizeof(T)];
        std::memcpy(bytes, &value, sizeof(T));
        for (unsigned char b : bytes)
            if (b != 0)
                return false;
        return true;
    }
    void SetShape(int nx, int ny) {
        nx_ = nx > 0 ? nx : 0;
        ny_ = ny > 0 ? ny : 0;
    }
    [[nodiscard]] std::size_t CellCount() const {
        return static_cast<std::size_t>(nx_) * static_cast<std::size_t>(ny_);
    }
    [[nodiscard]] std::size_t Stride() const { return static_cast<std::size_t>(nx_) * kPerCell; }
    [[nodiscard]] std::size_t Offset(int i, int j) const {
        return (static_cast<std::size_t>(j) * static_cast<std::size_t>(nx_) +
                static_cast<std::size_t>(i)) *
               kPerCell;
    }
    [[nodiscard]] std::size_t CheckedOffset(int i, int j) const {
        assert(i >= 0 && i < nx_ && j >= 0 && j < ny_);
        return Offset(i, j);
    }

    int nx_ = 0;
    int ny_ = 0;
    GridVector<T> values_;
};
