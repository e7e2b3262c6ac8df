// The registry's one door to the heap.  Every allocation the registry makes
// goes through sr_i_malloc, sr_i_calloc or sr_i_realloc.  Memory from here is
// ordinary malloc memory: it is released with free(), by the registry and by
// its callers.
//
// This file is compiled twice.  The shared library, which is what gets
// installed, calls the heap directly.  The static archive the tests link is
// built with QX_TEST_SEAMS and adds two test devices: a countdown that makes
// exactly one allocation fail, so that a test can check that the operation
// reported 12 and left its structure as it was, and reallocations that always
// move their block.
//
// Large blocks (a table file's image, the row index and the key index of a
// large table) are written page after page right after they are allocated.
// Fresh memory costs a page fault per 4 KiB page on first touch, which for a
// table of 100,000 rows is some 4,000 faults and several times the time the
// reopen's own work takes; such blocks are marked for huge pages, which take
// one fault per 2 MiB.  Only a hint: where the system ignores it nothing
// changes.
#include <malloc.h>
#include <sys/mman.h>

#include <cstdint>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "sr_i_pool.h"

SR_SOURCE_FILE("sr/sr_i_alloc", "1.1");

#if defined(QX_TEST_SEAMS)

namespace {

// Allocations still to let through before the armed failure; negative when
// nothing is armed.  Relaxed ordering is enough: the hook is a test device and
// tests that use it drive the registry from one thread.
std::atomic<qx_int64_t> Alloc_Countdown{-1};

// True when this call is the one that must fail.
bool alloc_should_fail() {
    if (Alloc_Countdown.load(std::memory_order_relaxed) < 0) return false;
    return Alloc_Countdown.fetch_sub(1, std::memory_order_relaxed) == 0;
}

// When set, every reallocation moves its block, so that a test can prove the
// pointers into a moved array are fixed up whatever the heap would have done.
std::atomic<bool> Realloc_Moves{false};

// A reallocation that always moves the block.
void *moving_realloc(void *p_memory, size_t size) {
    void *p_moved = std::malloc(size);
    if (p_moved == nullptr) return nullptr;
    const size_t old_size = malloc_usable_size(p_memory);
    std::memcpy(p_moved, p_memory, old_size < size ? old_size : size);
    std::free(p_memory);
    return p_moved;
}

}  // namespace

void sr_i_alloc_move_reallocations(bool move) {
    Realloc_Moves.store(move, std::memory_order_relaxed);
}

void sr_i_alloc_fail_after(qx_int64_t successful_allocations) {
    Alloc_Countdown.store(successful_allocations < 0 ? -1 : successful_allocations,
                          std::memory_order_relaxed);
}

int sr_i_alloc_failure_pending() {
    return Alloc_Countdown.load(std::memory_order_relaxed) >= 0;
}

#else

namespace {

// The shipped library: no allocation is made to fail.
constexpr bool alloc_should_fail() {
    return false;
}

}  // namespace

#endif

namespace {

// Blocks from this size on get the hint: they span at least one whole huge
// page wherever they lie.
constexpr size_t kHugePageBytes = 2u << 20;
constexpr size_t kHugeHintBytes = 2 * kHugePageBytes;
// ... and up to this size.  Measured on reopening tables: the hint halves the
// time at 100,000 rows (blocks of a few MiB) but makes it 1.5 to 1.8 times
// slower at 1,000,000 rows (blocks of 50 to 80 MiB), where plain pages win.
constexpr size_t kHugeHintLargestBytes = 32u << 20;

constexpr bool wants_huge_pages(size_t size) {
    return size >= kHugeHintBytes && size <= kHugeHintLargestBytes;
}

// Marks the whole huge pages inside a large block; returns the block.
void *hint_huge_pages(void *p_memory, size_t size) {
#if defined(MADV_HUGEPAGE)
    if (p_memory != nullptr && wants_huge_pages(size)) {
        const uintptr_t begin =
            (reinterpret_cast<uintptr_t>(p_memory) + kHugePageBytes - 1) & ~(kHugePageBytes - 1);
        const uintptr_t end =
            (reinterpret_cast<uintptr_t>(p_memory) + size) & ~(kHugePageBytes - 1);
        // A refusal (no such support) leaves ordinary pages.
        (void)madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
    }
#endif
    return p_memory;
}

}  // namespace

void *sr_i_malloc(size_t size) {
    if (alloc_should_fail()) return nullptr;
    if (wants_huge_pages(size)) {
        // Begun on a huge page boundary, a block loses no huge page at its
        // head, where filling it starts.
        void *p_memory = nullptr;
        if (posix_memalign(&p_memory, kHugePageBytes, size) != 0) return nullptr;
        return hint_huge_pages(p_memory, size);
    }
    // A zero-byte request still yields a pointer so that NULL means only
    // "no memory" to every caller.
    return std::malloc(size != 0 ? size : 1);
}

void *sr_i_calloc(size_t count, size_t size) {
    if (alloc_should_fail()) return nullptr;
    if (count == 0 || size == 0) return std::calloc(1, 1);
    return std::calloc(count, size);
}

void *sr_i_realloc(void *p_memory, size_t size) {
    if (alloc_should_fail()) return nullptr;
    if (size == 0) size = 1;
#if defined(QX_TEST_SEAMS)
    if (p_memory != nullptr && Realloc_Moves.load(std::memory_order_relaxed)) {
        return hint_huge_pages(moving_realloc(p_memory, size), size);
    }
#endif
    return hint_huge_pages(std::realloc(p_memory, size), size);
}
