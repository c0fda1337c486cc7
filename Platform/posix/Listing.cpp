#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Windows.h"
#include "Platform/posix/Clock.h"
#include "Platform/posix/Descriptor.h"
#include "Platform/posix/Errors.h"
#include "Platform/posix/Faults.h"
#include "Platform/posix/Handles.h"
#include "Platform/posix/Paths.h"

namespace Platform {

namespace {

using TestFaults::FileCall;

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, CloseDirectory>;

// One listing between FindFirstFileW and FindClose. Without a stream it is at its end: that of a
// single name, which was delivered by FindFirstFileW.
struct Listing {
  DirectoryStream stream;
  bool bWithoutDot = false;
};

HandleTable<std::shared_ptr<Listing>>& Listings() {
  static auto& listings = *new HandleTable<std::shared_ptr<Listing>>;
  return listings;
}

bool Matches(const Listing& listing, std::string_view name) {
  return !listing.bWithoutDot || name == "." || name == ".." ||
         name.find('.') == std::string_view::npos;
}

// The status of what opening the name would meet; of the link itself where it leads nowhere.
bool ReadStatus(int directory, const char* name, struct stat& status) {
  return ::fstatat(directory, name, &status, 0) == 0 ||
         ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

DWORD Fill(std::string_view name, const struct stat& status, WIN32_FIND_DATAW& data) {
  const std::wstring wideName = FromNativeName(name);
  if (wideName.size() >= MAX_PATH) {
    return ERROR_FILENAME_EXCED_RANGE;
  }
  data = {};
  data.dwFileAttributes = AttributesOf(status);
  data.ftLastAccessTime = ToFileTime(FileTimeUnits(status.st_atim));
  data.ftLastWriteTime = ToFileTime(FileTimeUnits(status.st_mtim));
  if (!S_ISDIR(status.st_mode)) {
    const auto size = static_cast<std::uint64_t>(status.st_size);
    data.nFileSizeHigh = static_cast<DWORD>(size >> 32);
    data.nFileSizeLow = static_cast<DWORD>(size);
  }
  std::ranges::copy(wideName, data.cFileName);
  return ERROR_SUCCESS;
}

// ERROR_NO_MORE_FILES at the end.
DWORD Advance(Listing& listing, WIN32_FIND_DATAW& data) {
  while (listing.stream) {
    errno = 0;
    const dirent* entry = ::readdir(listing.stream.get());
    if (entry == nullptr) {
      if (errno != 0) {
        return ErrorFromErrno(errno);
      }
      break;
    }
    struct stat status;
    // An entry that was removed meanwhile is not listed.
    if (Matches(listing, entry->d_name) &&
        ReadStatus(::dirfd(listing.stream.get()), entry->d_name, status)) {
      return Fill(entry->d_name, status, data);
    }
  }
  return ERROR_NO_MORE_FILES;
}

struct Pattern {
  std::string directory;
  std::string name;
};

Pattern Split(const std::string& native) {
  const std::size_t separator = native.rfind('/');
  if (separator == std::string::npos) {
    return {".", native};
  }
  return {native.substr(0, separator + 1), native.substr(separator + 1)};
}

DWORD OpenDirectory(const std::string& path, DirectoryStream& stream) {
  Descriptor directory(
      RetryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!directory.IsOpen()) {
    const DWORD error = PathError(errno, path);
    // The separator belongs between the directory and the pattern.
    return error == ERROR_FILE_NOT_FOUND ? ERROR_PATH_NOT_FOUND
           : error == ERROR_INVALID_NAME ? ERROR_DIRECTORY
                                         : error;
  }
  stream.reset(::fdopendir(directory.Get()));
  if (!stream) {
    return ErrorFromErrno(errno);
  }
  directory.Release();
  return ERROR_SUCCESS;
}

DWORD FindFirst(LPCWSTR fileName, LPWIN32_FIND_DATAW data, HANDLE& handle) {
  if (data == nullptr) {
    return ERROR_INVALID_PARAMETER;
  }
  std::string native;
  if (const DWORD error = ToNativePath(fileName, native); error != ERROR_SUCCESS) {
    return error;
  }
  const Pattern pattern = Split(native);
  const bool bWithoutDot = pattern.name == "*.";
  const bool bAll = pattern.name == "*" || pattern.name == "*.*";
  if (!bWithoutDot && !bAll && pattern.name.find_first_of("*?<>\"") != std::string::npos) {
    return ERROR_INVALID_PARAMETER;
  }
  if (const DWORD error = AskFault(FileCall::FindFirstFileW).error; error != ERROR_SUCCESS) {
    return error;
  }
  auto listing = std::make_shared<Listing>();
  listing->bWithoutDot = bWithoutDot;
  DWORD error = OpenDirectory(pattern.directory, listing->stream);
  if (error != ERROR_SUCCESS) {
    return error;
  }
  if (bWithoutDot || bAll) {
    error = Advance(*listing, *data);
  } else {
    struct stat status;
    error = !pattern.name.empty() &&
                    ReadStatus(::dirfd(listing->stream.get()), pattern.name.c_str(), status)
                ? Fill(pattern.name, status, *data)
                : ERROR_NO_MORE_FILES;
    listing->stream.reset();
  }
  if (error != ERROR_SUCCESS) {
    return error == ERROR_NO_MORE_FILES ? ERROR_FILE_NOT_FOUND : error;
  }
  handle = Listings().Add(std::move(listing));
  return ERROR_SUCCESS;
}

DWORD FindNext(HANDLE handle, LPWIN32_FIND_DATAW data) {
  const std::optional<std::shared_ptr<Listing>> listing = Listings().Find(handle);
  if (!listing) {
    return ERROR_INVALID_HANDLE;
  }
  if (data == nullptr) {
    return ERROR_INVALID_PARAMETER;
  }
  if (const DWORD error = AskFault(FileCall::FindNextFileW).error; error != ERROR_SUCCESS) {
    return error;
  }
  return Advance(**listing, *data);
}

}  // namespace

}  // namespace Platform

HANDLE FindFirstFileW(LPCWSTR fileName, LPWIN32_FIND_DATAW findFileData) {
  HANDLE handle = INVALID_HANDLE_VALUE;
  Platform::Report([&] { return Platform::FindFirst(fileName, findFileData, handle); });
  return handle;
}

BOOL FindNextFileW(HANDLE findFile, LPWIN32_FIND_DATAW findFileData) {
  return Platform::Report([&] { return Platform::FindNext(findFile, findFileData); }) ==
         ERROR_SUCCESS;
}

BOOL FindClose(HANDLE findFile) {
  return Platform::Report([&]() -> DWORD {
           return Platform::Listings().Remove(findFile) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
         }) == ERROR_SUCCESS;
}
