#include "Agent/DiskSync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace OrloAgent {

namespace {

std::error_code Sync(const char* path, int flags) {
  const int opened = open(path, O_RDONLY | O_CLOEXEC | flags);
  if (opened < 0) {
    return {errno, std::generic_category()};
  }
  const int error = fsync(opened) == 0 ? 0 : errno;
  close(opened);
  return {error, std::generic_category()};
}

}  // namespace

std::error_code SyncFile(const std::filesystem::path& file) { return Sync(file.c_str(), 0); }

std::error_code SyncDirectory(const std::filesystem::path& directory) {
  const std::error_code error = Sync(directory.empty() ? "." : directory.c_str(), O_DIRECTORY);
  // The answers of file systems that have no such call, as some that come over a network.
  const bool isMissing = error == std::errc::invalid_argument || error == std::errc::not_supported;
  return isMissing ? std::error_code() : error;
}

}  // namespace OrloAgent
