#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "tests/StoreAndForward/CacheModelRunner.h"

namespace OrloStoreAndForward {

namespace {

class Shrinker {
 public:
  Shrinker(CacheOperations failing, const std::function<bool(const CacheOperations&)>& fails,
           std::size_t runs)
      : m_failing(std::move(failing)), m_fails(fails), m_runs(runs) {}

  ShrunkOperations Shrink() {
    // Simpler operations may make others unnecessary, so both go round until nothing is won.
    do {
      while (RemoveOperations() || RemovePairs()) {
      }
    } while (SimplifyOperations());
    return {std::move(m_failing), m_gaveUp};
  }

 private:
  bool Accept(CacheOperations candidate) {
    if (m_runs == 0) {
      m_gaveUp = true;
      return false;
    }
    --m_runs;
    if (!m_fails(candidate)) {
      return false;
    }
    m_failing = std::move(candidate);
    return true;
  }

  // From the end, in runs of operations that get shorter.
  bool RemoveOperations() {
    bool won = false;
    for (std::size_t length = std::max<std::size_t>(1, m_failing.size() / 2); length > 0;
         length /= 2) {
      for (std::size_t end = m_failing.size(); end >= length && end > 0;) {
        CacheOperations candidate = m_failing;
        const auto first = candidate.begin() + static_cast<std::ptrdiff_t>(end - length);
        candidate.erase(first, first + static_cast<std::ptrdiff_t>(length));
        won = Accept(std::move(candidate)) || won;
        end -= length;
      }
    }
    return won;
  }

  // A push and its pop often can't go but together.
  bool RemovePairs() {
    constexpr std::size_t kFew = 24;
    for (std::size_t second = 1; m_failing.size() <= kFew && second < m_failing.size(); ++second) {
      for (std::size_t first = 0; first < second; ++first) {
        CacheOperations candidate = m_failing;
        candidate.erase(candidate.begin() + static_cast<std::ptrdiff_t>(second));
        candidate.erase(candidate.begin() + static_cast<std::ptrdiff_t>(first));
        if (Accept(std::move(candidate))) {
          return true;
        }
      }
    }
    return false;
  }

  bool SimplifyOperations() {
    bool won = false;
    for (std::size_t i = 0; i < m_failing.size(); ++i) {
      for (bool again = true; again;) {
        again = false;
        for (CacheOperation& simpler : Simpler(m_failing[i])) {
          CacheOperations candidate = m_failing;
          candidate[i] = std::move(simpler);
          if (Accept(std::move(candidate))) {
            again = true;
            won = true;
            break;
          }
        }
      }
    }
    return won;
  }

  // Each one is smaller in some measure, so that simplifying comes to an end.
  static std::vector<CacheOperation> Simpler(const CacheOperation& operation) {
    std::vector<CacheOperation> all;
    const auto add = [&](const std::function<void(CacheOperation&)>& change) {
      all.push_back(operation);
      change(all.back());
      if (all.back() == operation) {
        all.pop_back();
      }
    };
    add([](CacheOperation& o) { o.fault.reset(); });
    add([](CacheOperation& o) { o.blocks.reset(); });
    for (std::size_t i = 0; i < operation.events.size(); ++i) {
      add([i](CacheOperation& o) {
        o.events.erase(o.events.begin() + static_cast<std::ptrdiff_t>(i));
      });
      for (const std::uint32_t part : {1u, 2u, 8u, 64u, 512u, 1u << 31}) {
        const auto less = [part](std::uint32_t& size) {
          size -= size == 0 ? 0 : std::max(1u, size / part);
        };
        add([&](CacheOperation& o) { less(o.events[i].head.length); });
        add([&](CacheOperation& o) { less(o.events[i].head.read); });
        if (operation.events[i].payload) {
          add([&](CacheOperation& o) { less(o.events[i].payload->length); });
          add([&](CacheOperation& o) { less(o.events[i].payload->read); });
        }
      }
    }
    const bool isSize =
        operation.kind != CacheOperationKind::Clock && operation.kind != CacheOperationKind::Push;
    for (std::size_t i = 0; isSize && i < operation.numbers.size(); ++i) {
      add([i](CacheOperation& o) { o.numbers[i] /= 2; });
    }
    return all;
  }

  CacheOperations m_failing;
  const std::function<bool(const CacheOperations&)>& m_fails;
  std::size_t m_runs;
  bool m_gaveUp = false;
};

}  // namespace

ShrunkOperations ShrinkCacheOperations(CacheOperations failing,
                                       const std::function<bool(const CacheOperations&)>& fails,
                                       std::size_t runs) {
  return Shrinker(std::move(failing), fails, runs).Shrink();
}

}  // namespace OrloStoreAndForward
