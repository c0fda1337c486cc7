#include "Platform/posix/Paths.h"

#include <cerrno>

#include "Platform/posix/Errors.h"
#include "Platform/posix/Unicode.h"

namespace Platform {

namespace {

// A byte b of a name that is not UTF-8 is the unit kFirstByteUnit + (b - 0x80).
constexpr char32_t kFirstByteUnit = 0xDC80;
constexpr char32_t kLastByteUnit = 0xDCFF;

std::string WithoutTrailingSeparators(const std::string& native) {
  std::string path = native;
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

std::string ParentOf(const std::string& native) {
  const std::string path = WithoutTrailingSeparators(native);
  const std::size_t separator = path.rfind('/');
  if (separator == std::string::npos) {
    return ".";
  }
  return separator == 0 ? "/" : path.substr(0, separator);
}

DWORD NotFoundError(const std::string& native) {
  struct stat status;
  const bool parentIsDirectory =
      ::stat(ParentOf(native).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
  return parentIsDirectory ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

bool Exists(const std::string& native) {
  struct stat status;
  return ::lstat(WithoutTrailingSeparators(native).c_str(), &status) == 0;
}

// A separator behind something that is no directory, or would become none.
bool HasStraySeparator(const std::string& native) {
  struct stat status;
  return native.size() > 1 && native.back() == '/' &&
         !(::stat(native.c_str(), &status) == 0 && S_ISDIR(status.st_mode));
}

}  // namespace

DWORD ToNativePath(LPCWSTR path, std::string& native) {
  if (path == nullptr) {
    return ERROR_INVALID_PARAMETER;
  }
  native.clear();
  std::wstring_view rest(path);
  if (rest.empty()) {
    return ERROR_PATH_NOT_FOUND;
  }
  while (!rest.empty()) {
    const Unicode::Step step = Unicode::DecodeWide(rest);
    rest.remove_prefix(step.length);
    if (step.character == U'\\' || step.character == U'/') {
      if (native.empty() || native.back() != '/') {
        native.push_back('/');
      }
    } else if (step.valid) {
      char bytes[4];
      native.append(bytes, Unicode::EncodeUtf8(step.character, bytes));
    } else if (step.character >= kFirstByteUnit && step.character <= kLastByteUnit) {
      native.push_back(static_cast<char>(0x80 + (step.character - kFirstByteUnit)));
    } else {
      return ERROR_INVALID_NAME;
    }
  }
  return ERROR_SUCCESS;
}

std::wstring FromNativeName(std::string_view name) {
  std::wstring wide;
  while (!name.empty()) {
    const Unicode::Step step = Unicode::DecodeUtf8(name);
    if (step.valid) {
      wide.push_back(static_cast<wchar_t>(step.character));
    } else {
      for (const char byte : name.substr(0, step.length)) {
        const auto value = static_cast<unsigned char>(byte);
        wide.push_back(static_cast<wchar_t>(kFirstByteUnit + (value - 0x80)));
      }
    }
    name.remove_prefix(step.length);
  }
  return wide;
}

DWORD PathError(int error, const std::string& native) {
  const bool bUsedAsDirectory = error == ENOTDIR && Exists(native);
  if ((bUsedAsDirectory || error == EISDIR) && HasStraySeparator(native)) {
    return ERROR_INVALID_NAME;
  }
  if (bUsedAsDirectory) {
    return ERROR_DIRECTORY;
  }
  if (error == ENOENT || error == ENOTDIR) {
    return NotFoundError(native);
  }
  return ErrorFromErrno(error);
}

DWORD AttributesOf(const struct stat& status) {
  if (S_ISDIR(status.st_mode)) {
    return FILE_ATTRIBUTE_DIRECTORY;
  }
  return (status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0 ? FILE_ATTRIBUTE_READONLY
                                                               : FILE_ATTRIBUTE_NORMAL;
}

}  // namespace Platform
