#include "WindowsAgentCommon/Directories.h"

#include "Platform/Windows.h"

namespace WindowsAgentCommon {

namespace {

bool IsSeparator(wchar_t character) { return character == L'\\' || character == L'/'; }

// A root keeps its separator: "\" and "C:\" mean something else without it.
std::wstring WithoutTrailingSeparators(std::wstring path) {
  while (path.size() > 1 && IsSeparator(path.back()) && path[path.size() - 2] != L':') {
    path.pop_back();
  }
  return path;
}

// Empty where there is no parent to be made.
std::wstring GetParent(const std::wstring& path) {
  const std::size_t separator = path.find_last_of(L"\\/");
  if (separator == std::wstring::npos || separator == 0) {
    return {};
  }
  return WithoutTrailingSeparators(path.substr(0, separator));
}

std::uint32_t MakeDirectory(const std::wstring& path) {
  if (CreateDirectoryW(path.c_str(), nullptr)) {
    return ERROR_SUCCESS;
  }
  const DWORD error = GetLastError();
  if (error != ERROR_ALREADY_EXISTS) {
    return error;
  }
  // Someone else may have made it since it was found missing.
  bool isDirectory = false;
  const std::uint32_t asked = IsDirectory(path, isDirectory);
  return asked == ERROR_SUCCESS && isDirectory ? ERROR_SUCCESS : error;
}

bool IsDotEntry(const wchar_t* name) {
  return name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0'));
}

}  // namespace

std::uint32_t CreateDirectoryRecursive(const std::wstring& path) {
  const std::wstring directory = WithoutTrailingSeparators(path);
  bool isDirectory = false;
  std::uint32_t error = IsDirectory(directory, isDirectory);
  if (error == ERROR_SUCCESS) {
    return isDirectory ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS;
  }
  if (error == ERROR_PATH_NOT_FOUND) {
    const std::wstring parent = GetParent(directory);
    if (parent.empty()) {
      return error;
    }
    error = CreateDirectoryRecursive(parent);
    if (error != ERROR_SUCCESS) {
      return error == ERROR_ALREADY_EXISTS ? ERROR_PATH_NOT_FOUND : error;
    }
  } else if (error != ERROR_FILE_NOT_FOUND) {
    return error;
  }
  return MakeDirectory(directory);
}

std::uint32_t IsDirectory(const std::wstring& path, bool& isDirectory) {
  isDirectory = false;
  const DWORD attributes = GetFileAttributesW(WithoutTrailingSeparators(path).c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    return GetLastError();
  }
  isDirectory = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return ERROR_SUCCESS;
}

std::uint32_t IsDirectoryEmpty(const std::wstring& path, bool& isEmpty) {
  WIN32_FIND_DATAW entry;
  const HANDLE listing = FindFirstFileW((WithoutTrailingSeparators(path) + L"\\*").c_str(), &entry);
  if (listing == INVALID_HANDLE_VALUE) {
    const DWORD error = GetLastError();
    // The root of a volume has no "." and "..": nothing at all matches there.
    if (error != ERROR_FILE_NOT_FOUND) {
      return error;
    }
    isEmpty = true;
    return ERROR_SUCCESS;
  }
  bool found = !IsDotEntry(entry.cFileName);
  while (!found && FindNextFileW(listing, &entry)) {
    found = !IsDotEntry(entry.cFileName);
  }
  const DWORD error = found ? ERROR_NO_MORE_FILES : GetLastError();
  FindClose(listing);
  if (error != ERROR_NO_MORE_FILES) {
    return error;
  }
  isEmpty = !found;
  return ERROR_SUCCESS;
}

}  // namespace WindowsAgentCommon
