#include "Agent/StallWatch.h"

#include <cerrno>
#include <fstream>
#include <system_error>

namespace OrloAgent {

namespace {

// The first name in the directory, by the order of names, of an entry that `fits`.
template <typename Fits>
std::filesystem::path FindFirst(const std::filesystem::path& directory, Fits fits) {
  std::filesystem::path first;
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  while (!error && entry != std::filesystem::directory_iterator()) {
    if (fits(*entry) && (first.empty() || entry->path() < first)) {
      first = entry->path();
    }
    entry.increment(error);
  }
  return first;
}

// As the cache's own listing: names without an extension.
bool HasChunkName(const std::filesystem::directory_entry& entry) {
  return entry.path().filename().native().find('.') == std::filesystem::path::string_type::npos;
}

bool HoldsChunks(const std::filesystem::directory_entry& entry) {
  std::error_code error;
  return HasChunkName(entry) && entry.is_directory(error) &&
         !FindFirst(entry.path(), HasChunkName).empty();
}

}  // namespace

bool StallWatch::Look(const StreamMotion& motion, Clock::time_point now) {
  const bool moved = !m_last || motion.accepted != m_last->accepted ||
                     motion.delivered != m_last->delivered || motion.refusals != m_last->refusals ||
                     motion.cachedChunks < m_last->cachedChunks;
  const bool couldMove =
      motion.cachedChunks > 0 && motion.accepted == motion.delivered && motion.sendingAllowed;
  m_last = motion;
  if (moved || !couldMove) {
    m_since = now;
    m_stalled = false;
    return false;
  }
  if (now - m_since < m_options.stallAfter) {
    return false;
  }
  if (m_stalled && now - m_warned < m_options.repeat) {
    return false;
  }
  m_stalled = true;
  m_warned = now;
  return true;
}

std::chrono::seconds StallWatch::GetStalledTime(Clock::time_point now) const {
  return m_stalled ? std::chrono::duration_cast<std::chrono::seconds>(now - m_since)
                   : std::chrono::seconds(0);
}

OldestChunk FindOldestChunk(const std::filesystem::path& cacheDirectory) {
  OldestChunk oldest;
  const std::filesystem::path minute = FindFirst(cacheDirectory, HoldsChunks);
  if (minute.empty()) {
    return oldest;
  }
  oldest.path = FindFirst(minute, HasChunkName);
  if (oldest.path.empty()) {
    return oldest;
  }
  std::error_code error;
  if (std::filesystem::is_directory(oldest.path, error)) {
    oldest.error = "it is a directory";
    return oldest;
  }
  errno = 0;
  std::ifstream file(oldest.path, std::ios::binary);
  if (file.is_open()) {
    file.peek();
    if (!file.bad()) {
      return oldest;
    }
  }
  oldest.error = errno != 0 ? std::generic_category().message(errno) : "it can't be read";
  return oldest;
}

}  // namespace OrloAgent
