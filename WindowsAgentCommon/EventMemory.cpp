#include "WindowsAgentCommon/EventMemory.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

#include "WindowsAgentCommon/Pages.h"

namespace WindowsAgentCommon::EventMemory {

namespace {

constexpr std::size_t kSlabSize = kPagesAlignment;
constexpr std::size_t kSlabsInRegion = 16;
constexpr std::size_t kRegionSize = kSlabSize * kSlabsInRegion;
constexpr std::uint32_t kAllSlabs = (1u << kSlabsInRegion) - 1;
constexpr std::size_t kAlignment = 16;

// Free regions that stay for good.
constexpr std::size_t kRegionsToKeep = 1;

// Free regions that are kept at most, 64 MB: what a busy stream uses in a chunking period. More
// than that goes back at once, so that a large chunk's events make room for its bytes while it is
// written.
constexpr std::size_t kMostToKeep = 64;

// How long a region within these bounds is free at least before it is given back. Events come and
// go once in a chunking period, and memory that the system has just handed out costs more than the
// rest of an event.
constexpr std::chrono::seconds kTrimPeriod{30};

struct Region;

// Stands at the start of a slab's memory. While a thread takes pieces out of the slab, that thread
// alone knows how many there are: the count starts out larger than any number of pieces and is put
// right when the thread is done with the slab, so that it reaches 0 exactly once.
struct Slab {
  static constexpr std::int64_t kInUse = std::int64_t{1} << 40;

  explicit Slab(Region* home) : region(home) {}

  Region* const region;
  std::atomic<std::int64_t> pieces{0};
};

constexpr std::size_t kHeaderSize = 64;
static_assert(sizeof(Slab) <= kHeaderSize);

// Guarded by the lock of Regions.
struct Region {
  char* memory = nullptr;
  std::uint32_t freeSlabs = kAllSlabs;  // one bit each
  Region* previous = nullptr;           // of the regions that have free slabs
  Region* next = nullptr;
};

Slab* SlabOf(void* piece) {
  return reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(piece) & ~(kSlabSize - 1));
}

// All regions of the process.
class Regions {
 public:
  // A slab without pieces; null when there is no memory.
  Slab* Take() {
    const std::lock_guard guard(m_lock);
    if (m_first == nullptr && !Add()) {
      return nullptr;
    }
    Region& region = *m_first;
    if (region.freeSlabs == kAllSlabs) {
      m_firstWhole = region.next;
      --m_whole;
      m_leastWhole = std::min(m_leastWhole, m_whole);
    }
    const int number = std::countr_zero(region.freeSlabs);
    region.freeSlabs &= ~(std::uint32_t{1} << number);
    if (region.freeSlabs == 0) {
      Unlink(region);
    }
    return reinterpret_cast<Slab*>(region.memory + static_cast<std::size_t>(number) * kSlabSize);
  }

  void GiveBack(Slab* slab) {
    bool isWhole = false;
    Region* tooMuch = nullptr;
    {
      const std::lock_guard guard(m_lock);
      Region& region = *slab->region;
      const auto offset = static_cast<std::size_t>(reinterpret_cast<char*>(slab) - region.memory);
      if (region.freeSlabs != 0) {
        Unlink(region);
      }
      region.freeSlabs |= std::uint32_t{1} << (offset / kSlabSize);
      if (region.freeSlabs != kAllSlabs) {
        // Regions in use are used first, so that others become free as a whole.
        LinkFirst(region);
      } else if (m_whole < kMostToKeep) {
        ++m_whole;
        LinkWhole(region);
        isWhole = true;
      } else {
        tooMuch = &region;
        m_held.fetch_sub(kRegionSize, std::memory_order_relaxed);
      }
    }
    if (tooMuch != nullptr) {
      ReleasePages(tooMuch->memory, kRegionSize);
      delete tooMuch;
    }
    if (isWhole) {
      Trim(std::chrono::steady_clock::now());
    }
  }

  // Gives back as many free regions as were free all the time since the last time.
  void Trim(std::chrono::steady_clock::time_point now) {
    Region* unused = nullptr;
    {
      const std::lock_guard guard(m_lock);
      if (now < m_nextTrim) {
        return;
      }
      m_nextTrim = now + kTrimPeriod;
      for (; m_leastWhole > kRegionsToKeep; --m_leastWhole) {
        Region* const region = m_last;
        Unlink(*region);
        --m_whole;
        m_held.fetch_sub(kRegionSize, std::memory_order_relaxed);
        region->next = unused;
        unused = region;
      }
      m_leastWhole = m_whole;
    }
    while (unused != nullptr) {
      Region* const region = std::exchange(unused, unused->next);
      ReleasePages(region->memory, kRegionSize);
      delete region;
    }
  }

  std::size_t GetHeld() const { return m_held.load(std::memory_order_relaxed); }

 private:
  bool Add() {
    auto* const region = new (std::nothrow) Region;
    if (region == nullptr) {
      return false;
    }
    region->memory = static_cast<char*>(AllocatePages(kRegionSize));
    if (region->memory == nullptr) {
      delete region;
      return false;
    }
    for (std::size_t number = 0; number < kSlabsInRegion; ++number) {
      new (region->memory + number * kSlabSize) Slab(region);
    }
    m_held.fetch_add(kRegionSize, std::memory_order_relaxed);
    ++m_whole;
    LinkWhole(*region);
    return true;
  }

  void LinkFirst(Region& region) {
    region.previous = nullptr;
    region.next = m_first;
    (m_first == nullptr ? m_last : m_first->previous) = &region;
    m_first = &region;
  }

  // In front of the others whose slabs are all free: what was used last is most likely still in the
  // processor's cache, and what has not been used for longest is at the end.
  void LinkWhole(Region& region) {
    region.next = m_firstWhole;
    region.previous = m_firstWhole == nullptr ? m_last : m_firstWhole->previous;
    (region.previous == nullptr ? m_first : region.previous->next) = &region;
    (region.next == nullptr ? m_last : region.next->previous) = &region;
    m_firstWhole = &region;
  }

  void Unlink(Region& region) {
    if (m_firstWhole == &region) {
      m_firstWhole = region.next;
    }
    (region.previous == nullptr ? m_first : region.previous->next) = region.next;
    (region.next == nullptr ? m_last : region.next->previous) = region.previous;
  }

  std::mutex m_lock;
  // Regions with free slabs. Guarded by m_lock:
  Region* m_first = nullptr;
  Region* m_last = nullptr;
  // Regions whose slabs are all free; they stand behind all others.
  Region* m_firstWhole = nullptr;
  // Their number, and the fewest since the last trim.
  std::size_t m_whole = 0;
  std::size_t m_leastWhole = 0;
  std::chrono::steady_clock::time_point m_nextTrim{};
  std::atomic<std::size_t> m_held{0};
};

// Never destroyed: blocks may be released by destructors of other static objects.
Regions& GetRegions() {
  static Regions* const regions = new Regions;
  return *regions;
}

void Drop(Slab* slab, std::int64_t pieces) {
  if (slab->pieces.fetch_sub(pieces, std::memory_order_acq_rel) == pieces) {
    GetRegions().GiveBack(slab);
  }
}

struct FreeBlockPiece {
  FreeBlockPiece* next;
};

// As many as several events at once have blocks.
constexpr unsigned kMostFreeBlocks = 16;

// What a thread has at hand. Plain data, so that reaching it costs nothing.
struct ThreadMemory {
  // The slab out of which the thread takes pieces: the rest of it, and how many pieces were taken,
  // less those that this thread has freed again.
  char* next = nullptr;
  char* end = nullptr;
  Slab* current = nullptr;
  std::int64_t taken = 0;

  // Freed pieces of kBlockSize, all of the current slab, which still counts them as taken.
  FreeBlockPiece* freeBlocks = nullptr;
  unsigned freeBlockCount = 0;

  // Pieces of one slab that the thread has freed and has not yet told the slab about.
  Slab* freeing = nullptr;
  std::int64_t freed = 0;

  bool ended = false;

  void LeaveCurrent() {
    if (current != nullptr) {
      Slab* const slab = current;
      current = nullptr;
      next = end = nullptr;
      taken -= std::exchange(freeBlockCount, 0);
      freeBlocks = nullptr;
      Drop(slab, Slab::kInUse - taken);
    }
  }

  void FlushFreed() {
    if (freeing != nullptr) {
      Slab* const slab = freeing;
      freeing = nullptr;
      Drop(slab, freed);
    }
  }
};

thread_local constinit ThreadMemory memory;

// Leaves the thread's slabs when the thread ends.
struct ThreadEnd {
  ~ThreadEnd() {
    memory.LeaveCurrent();
    memory.FlushFreed();
    memory.ended = true;
  }
  // Makes the object exist.
  void Touch() {}
};

thread_local ThreadEnd threadEnd;

std::size_t RoundUp(std::size_t size) {
  return (std::max<std::size_t>(size, 1) + kAlignment - 1) & ~(kAlignment - 1);
}

void* AllocateFromNewSlab(ThreadMemory& own, std::size_t size) {
  own.LeaveCurrent();
  if (!own.ended) {
    threadEnd.Touch();
  }
  Slab* const slab = GetRegions().Take();
  if (slab == nullptr) {
    return nullptr;
  }
  slab->pieces.store(Slab::kInUse, std::memory_order_relaxed);
  char* const first = reinterpret_cast<char*>(slab) + kHeaderSize;
  own.current = slab;
  own.next = first + size;
  own.end = reinterpret_cast<char*>(slab) + kSlabSize;
  own.taken = 1;
  if (own.ended) {
    // Nobody comes back to the rest of it.
    own.LeaveCurrent();
  }
  return first;
}

// The size is a multiple of the alignment.
void* AllocatePiece(ThreadMemory& own, std::size_t size) {
  if (size > static_cast<std::size_t>(own.end - own.next)) {
    return AllocateFromNewSlab(own, size);
  }
  void* const piece = own.next;
  own.next += size;
  ++own.taken;
  return piece;
}

void FreeOfAnotherSlab(ThreadMemory& own, Slab* slab) {
  own.FlushFreed();
  if (own.ended) {
    Drop(slab, 1);
    return;
  }
  threadEnd.Touch();
  own.freeing = slab;
  own.freed = 1;
}

}  // namespace

void* Allocate(std::size_t size) noexcept { return AllocatePiece(memory, RoundUp(size)); }

void Free(void* piece) noexcept {
  if (piece == nullptr) {
    return;
  }
  ThreadMemory& own = memory;
  Slab* const slab = SlabOf(piece);
  if (slab == own.current) {
    --own.taken;
  } else if (slab == own.freeing) {
    ++own.freed;
  } else {
    FreeOfAnotherSlab(own, slab);
  }
}

void* AllocateBlock() noexcept {
  ThreadMemory& own = memory;
  FreeBlockPiece* const again = own.freeBlocks;
  if (again == nullptr) {
    return AllocatePiece(own, RoundUp(kBlockSize));
  }
  own.freeBlocks = again->next;
  --own.freeBlockCount;
  return again;
}

void FreeBlock(void* piece) noexcept {
  ThreadMemory& own = memory;
  if (piece == nullptr || SlabOf(piece) != own.current || own.freeBlockCount == kMostFreeBlocks) {
    Free(piece);
    return;
  }
  own.freeBlocks = new (piece) FreeBlockPiece{own.freeBlocks};
  ++own.freeBlockCount;
}

void GiveBackUnused(std::chrono::steady_clock::time_point now) noexcept { GetRegions().Trim(now); }

std::size_t GetHeldBytes() noexcept { return GetRegions().GetHeld(); }

}  // namespace WindowsAgentCommon::EventMemory
