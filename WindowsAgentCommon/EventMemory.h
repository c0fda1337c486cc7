#pragma once

#include <chrono>
#include <cstddef>

namespace WindowsAgentCommon {

// Memory for message blocks. Events are made on one thread and released on another, in nearly the
// same order; general allocators are at their slowest there, and their bookkeeping is a good part
// of a small event.
//
// Each thread takes its pieces one behind the other out of a slab of its own, until the slab is
// used up. A slab counts its pieces; when the last one has been freed, by whatever thread, it can
// be taken again, by any thread. So a piece that lives on keeps its whole slab: this memory is for
// what passes through, not for what stays.
//
// Slabs come in regions. Of free regions 64 megabytes are kept, and of these what was not used for
// half a minute goes back to the system as well, except for about a megabyte: a steady flow, which
// fills memory and empties it once in a chunking period, does not ask the system for it anew each
// time, and a burst does not keep it. Threads that do nothing keep two slabs each busy at most.
//
// Builds with AddressSanitizer take every piece from the heap instead (EventMemoryHeap.cpp), so
// that the sanitizer sees each of them.
namespace EventMemory {

// The largest piece.
constexpr std::size_t kLargest = 8 * 1024;

// `size` bytes, at most kLargest, aligned for any object without an alignment of its own; null when
// there is no memory. Any thread.
void* Allocate(std::size_t size) noexcept;

// Frees a piece, once, on any thread.
void Free(void* piece) noexcept;

// Pieces of one size, for message blocks: an event has several in turn, most of which end, moments
// after they were made, on the thread that made them. Such a thread gets the same memory again; it
// keeps a few of these pieces of its own at hand, and nothing that it would have to give back.
constexpr std::size_t kBlockSize = 80;
void* AllocateBlock() noexcept;
void FreeBlock(void* piece) noexcept;

// Gives back to the system what was free all the time since it was last done, if that is half a
// minute ago. Freeing memory does so by itself; this is for the time when nothing is freed any
// more: the agent calls it every few seconds. Any thread.
void GiveBackUnused(std::chrono::steady_clock::time_point now) noexcept;

// Bytes that are held of the system, whether in use or free. Any thread.
std::size_t GetHeldBytes() noexcept;

}  // namespace EventMemory

}  // namespace WindowsAgentCommon
