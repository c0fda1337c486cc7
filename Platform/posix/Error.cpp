#include "Platform/Error.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "Platform/posix/Errors.h"

namespace {

thread_local DWORD lastError = ERROR_SUCCESS;

struct ErrnoEntry {
  int error;
  DWORD windowsError;
};

constexpr ErrnoEntry kFromErrno[] = {
    {0, ERROR_SUCCESS},
    {EACCES, ERROR_ACCESS_DENIED},
    {EBADF, ERROR_INVALID_HANDLE},
    {EBUSY, ERROR_BUSY},
    {EDQUOT, ERROR_DISK_FULL},
    {EEXIST, ERROR_ALREADY_EXISTS},
    {EFAULT, ERROR_NOACCESS},
    {EFBIG, ERROR_FILE_TOO_LARGE},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {EIO, ERROR_IO_DEVICE},
    {EISDIR, ERROR_ACCESS_DENIED},
    {ELOOP, ERROR_CANT_RESOLVE_FILENAME},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {ENOSPC, ERROR_DISK_FULL},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {ENXIO, ERROR_NOT_SUPPORTED},
    {EOPNOTSUPP, ERROR_NOT_SUPPORTED},
    {EOVERFLOW, ERROR_FILE_TOO_LARGE},
    {EPERM, ERROR_ACCESS_DENIED},
    {EPIPE, ERROR_BROKEN_PIPE},
    {EROFS, ERROR_WRITE_PROTECT},
    {ETXTBSY, ERROR_SHARING_VIOLATION},
};

constexpr ErrnoEntry kToErrno[] = {
    {0, ERROR_SUCCESS},
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ENOENT, ERROR_PATH_NOT_FOUND},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {EACCES, ERROR_ACCESS_DENIED},
    {EBADF, ERROR_INVALID_HANDLE},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {EACCES, ERROR_WRITE_PROTECT},
    {EACCES, ERROR_SHARING_VIOLATION},
    {EEXIST, ERROR_FILE_EXISTS},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {EPIPE, ERROR_BROKEN_PIPE},
    {ENOSPC, ERROR_DISK_FULL},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {EEXIST, ERROR_ALREADY_EXISTS},
    {ENOENT, ERROR_FILENAME_EXCED_RANGE},
    {EIO, ERROR_IO_DEVICE},
};

struct TextEntry {
  DWORD error;
  const char* text;
};

constexpr TextEntry kTexts[] = {
    {ERROR_SUCCESS, "No error."},
    {ERROR_INVALID_FUNCTION, "The function is not valid here."},
    {ERROR_FILE_NOT_FOUND, "The file was not found."},
    {ERROR_PATH_NOT_FOUND, "The path was not found."},
    {ERROR_TOO_MANY_OPEN_FILES, "Too many files are open."},
    {ERROR_ACCESS_DENIED, "Access is denied."},
    {ERROR_INVALID_HANDLE, "The handle is not valid."},
    {ERROR_NOT_ENOUGH_MEMORY, "There is not enough memory."},
    {ERROR_NO_MORE_FILES, "There are no more files."},
    {ERROR_WRITE_PROTECT, "The medium is write-protected."},
    {ERROR_GEN_FAILURE, "The operation failed."},
    {ERROR_SHARING_VIOLATION, "The file is in use by another process."},
    {ERROR_NOT_SUPPORTED, "The operation is not supported."},
    {ERROR_FILE_EXISTS, "The file exists."},
    {ERROR_INVALID_PARAMETER, "A parameter is not valid."},
    {ERROR_BROKEN_PIPE, "The other end of the pipe was closed."},
    {ERROR_DISK_FULL, "The disk is full."},
    {ERROR_INSUFFICIENT_BUFFER, "The buffer is too small."},
    {ERROR_INVALID_NAME, "The name is not valid."},
    {ERROR_DIR_NOT_EMPTY, "The directory is not empty."},
    {ERROR_BUSY, "The resource is in use."},
    {ERROR_BAD_PATHNAME, "The path is not valid."},
    {ERROR_ALREADY_EXISTS, "A file or directory of this name exists already."},
    {ERROR_FILENAME_EXCED_RANGE, "The name is too long."},
    {ERROR_FILE_TOO_LARGE, "The file is too large."},
    {ERROR_MORE_DATA, "There is more data than the buffer holds."},
    {ERROR_DIRECTORY, "The name is not that of a directory."},
    {ERROR_NOACCESS, "The memory can't be accessed."},
    {ERROR_NO_UNICODE_TRANSLATION, "A character could not be converted."},
    {ERROR_IO_DEVICE, "The device reported an input or output error."},
    {ERROR_INVALID_USER_BUFFER, "The buffer is not valid."},
    {ERROR_NOT_ENOUGH_QUOTA, "The quota does not suffice."},
    {ERROR_CANT_RESOLVE_FILENAME, "The name could not be resolved."},
};

}  // namespace

DWORD GetLastError() { return lastError; }

void SetLastError(DWORD error) { lastError = error; }

namespace Platform {

DWORD ErrorFromErrno(int error) {
  const auto entry = std::ranges::find(kFromErrno, error, &ErrnoEntry::error);
  return entry == std::end(kFromErrno) ? ERROR_GEN_FAILURE : entry->windowsError;
}

int ErrnoFromError(DWORD error) {
  const auto entry = std::ranges::find(kToErrno, error, &ErrnoEntry::windowsError);
  return entry == std::end(kToErrno) ? EINVAL : entry->error;
}

std::string ErrorText(std::uint32_t error) {
  const auto entry = std::ranges::find(kTexts, error, &TextEntry::error);
  if (entry == std::end(kTexts)) {
    return "Unknown error " + std::to_string(error) + ".";
  }
  return entry->text;
}

}  // namespace Platform
