#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Platform/Windows.h"
#include "Platform/posix/Errors.h"
#include "Platform/posix/Faults.h"
#include "Platform/posix/Paths.h"

namespace Platform {

namespace {

using TestFaults::FileCall;

// What all of these calls begin with: the path, then the question for a fault.
DWORD Prepare(LPCWSTR path, FileCall call, std::string& native) {
  if (const DWORD error = ToNativePath(path, native); error != ERROR_SUCCESS) {
    return error;
  }
  return AskFault(call).error;
}

DWORD MakeDirectory(LPCWSTR path, SECURITY_ATTRIBUTES* securityAttributes) {
  if (securityAttributes != nullptr) {
    return ERROR_INVALID_PARAMETER;
  }
  std::string native;
  if (const DWORD error = Prepare(path, FileCall::CreateDirectoryW, native);
      error != ERROR_SUCCESS) {
    return error;
  }
  return ::mkdir(native.c_str(), 0777) == 0 ? ERROR_SUCCESS : PathError(errno, native);
}

DWORD DeleteDirectory(LPCWSTR path) {
  std::string native;
  if (const DWORD error = Prepare(path, FileCall::RemoveDirectoryW, native);
      error != ERROR_SUCCESS) {
    return error;
  }
  if (::rmdir(native.c_str()) == 0) {
    return ERROR_SUCCESS;
  }
  // POSIX lets rmdir say EEXIST for a directory with something in it.
  return errno == EEXIST ? ERROR_DIR_NOT_EMPTY : PathError(errno, native);
}

DWORD ReadAttributes(LPCWSTR path, DWORD& attributes) {
  std::string native;
  if (const DWORD error = Prepare(path, FileCall::GetFileAttributesW, native);
      error != ERROR_SUCCESS) {
    return error;
  }
  struct stat status;
  if (::stat(native.c_str(), &status) != 0) {
    return PathError(errno, native);
  }
  attributes = AttributesOf(status);
  return ERROR_SUCCESS;
}

DWORD DeleteName(LPCWSTR path) {
  std::string native;
  if (const DWORD error = Prepare(path, FileCall::Unlink, native); error != ERROR_SUCCESS) {
    return error;
  }
  struct stat status;
  if (::lstat(native.c_str(), &status) != 0) {
    return PathError(errno, native);
  }
  // The file system would delete a read-only file; Windows does not.
  if ((AttributesOf(status) & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) != 0) {
    return ERROR_ACCESS_DENIED;
  }
  return ::unlink(native.c_str()) == 0 ? ERROR_SUCCESS : PathError(errno, native);
}

}  // namespace

}  // namespace Platform

BOOL CreateDirectoryW(LPCWSTR pathName, SECURITY_ATTRIBUTES* securityAttributes) {
  return Platform::Report([&] { return Platform::MakeDirectory(pathName, securityAttributes); }) ==
         ERROR_SUCCESS;
}

BOOL RemoveDirectoryW(LPCWSTR pathName) {
  return Platform::Report([&] { return Platform::DeleteDirectory(pathName); }) == ERROR_SUCCESS;
}

DWORD GetFileAttributesW(LPCWSTR fileName) {
  DWORD attributes = INVALID_FILE_ATTRIBUTES;
  Platform::Report([&] { return Platform::ReadAttributes(fileName, attributes); });
  return attributes;
}

int _wunlink(const wchar_t* fileName) {
  const DWORD error = Platform::Report([&] { return Platform::DeleteName(fileName); });
  if (error == ERROR_SUCCESS) {
    return 0;
  }
  errno = Platform::ErrnoFromError(error);
  return -1;
}
