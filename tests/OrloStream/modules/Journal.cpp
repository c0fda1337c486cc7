#include "tests/OrloStream/modules/Journal.h"

#include <atomic>
#include <mutex>

namespace Journal {

namespace {

std::mutex lock;
std::vector<std::string> entries;  // guarded by lock
std::atomic<int> alive{0};
std::atomic<int> running{0};

}  // namespace

void Add(const std::string& entry) {
  const std::lock_guard guard(lock);
  entries.push_back(entry);
}

std::vector<std::string> GetEntries() {
  const std::lock_guard guard(lock);
  return entries;
}

void Clear() {
  const std::lock_guard guard(lock);
  entries.clear();
}

void CountAlive(int change) { alive += change; }

int GetAlive() { return alive; }

void CountRunning(int change) { running += change; }

int GetRunning() { return running; }

}  // namespace Journal
