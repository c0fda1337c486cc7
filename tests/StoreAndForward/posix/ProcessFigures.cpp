#include "tests/StoreAndForward/ProcessFigures.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "Platform/Windows.h"

namespace OrloStoreAndForward {

std::size_t CountDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors))) - 1;
}

std::uint64_t ResidentBytes() {
  std::ifstream file("/proc/self/statm");
  std::uint64_t total = 0;
  std::uint64_t resident = 0;
  if (!(file >> total >> resident)) {
    throw std::runtime_error("/proc/self/statm can't be read");
  }
  SYSTEM_INFO system{};
  GetSystemInfo(&system);
  return resident * system.dwPageSize;
}

}  // namespace OrloStoreAndForward
