#pragma once

#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "tests/StoreAndForward/CacheModelOperations.h"

namespace OrloStoreAndForward {

// What a random sequence is made of mostly.
enum class CacheModelProfile {
  Order,     // the cache and the clock, nothing goes wrong
  Damage,    // files are deleted, cut, changed and added behind the cache's back
  Refusals,  // room, memory and file calls are refused
  Everything
};

// Random operations; the same seed gives the same ones. Knows nothing of cache or model.
class CacheModelGenerator {
 public:
  CacheModelGenerator(std::uint64_t seed, CacheModelProfile profile);

  CacheOperation Next();
  CacheOperations Next(std::size_t count);

 private:
  std::uint64_t Below(std::uint64_t limit) { return m_random() % limit; }
  CacheOperationKind ChooseKind();
  void AddEvents(CacheOperation& operation);
  BlockSize ChooseBlock();
  void AddFault(CacheOperation& operation);
  void MoveClock();
  std::string ChoosePath();

  std::mt19937_64 m_random;
  const CacheModelProfile m_profile;
  std::int64_t m_tag = 0;
  // About how many chunks are queued; keeps directories small.
  std::int64_t m_depth = 0;
  std::int64_t m_now;
  std::vector<std::int64_t> m_pushedAt;
};

}  // namespace OrloStoreAndForward
