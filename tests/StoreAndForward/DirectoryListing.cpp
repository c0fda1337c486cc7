#include "tests/StoreAndForward/DirectoryListing.h"

#include "Platform/Windows.h"

namespace OrloStoreAndForward {

std::vector<std::string> ListInOrder(const std::filesystem::path& directory) {
  std::vector<std::string> names;
  WIN32_FIND_DATAW found{};
  const HANDLE listing = FindFirstFileW((directory / "*.").wstring().c_str(), &found);
  if (listing == INVALID_HANDLE_VALUE) {
    return names;
  }
  do {
    names.push_back(std::filesystem::path(found.cFileName).string());
  } while (FindNextFileW(listing, &found) != FALSE);
  FindClose(listing);
  return names;
}

}  // namespace OrloStoreAndForward
