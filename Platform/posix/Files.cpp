#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include "Platform/Windows.h"
#include "Platform/posix/Descriptor.h"
#include "Platform/posix/Errors.h"
#include "Platform/posix/Faults.h"
#include "Platform/posix/Handles.h"
#include "Platform/posix/Paths.h"

namespace Platform {

namespace {

using TestFaults::Fault;
using TestFaults::FileCall;

struct OpenedFile {
  int descriptor;
  DWORD access;
};

HandleTable<OpenedFile>& Files() {
  // Never destroyed: threads may still hold files while the process ends.
  static auto& files = *new HandleTable<OpenedFile>;
  return files;
}

// The part of a read or write that is asked of the kernel at once; it takes less than 2 GiB.
constexpr std::size_t kMaximumTransfer = std::size_t{1} << 30;

struct Disposition {
  bool bCreates;
  bool bOpens;
  bool bTruncates;
};

std::optional<Disposition> DispositionOf(DWORD value) {
  switch (value) {
    case CREATE_NEW:
      return Disposition{true, false, false};
    case CREATE_ALWAYS:
      return Disposition{true, true, true};
    case OPEN_EXISTING:
      return Disposition{false, true, false};
    case OPEN_ALWAYS:
      return Disposition{true, true, false};
    case TRUNCATE_EXISTING:
      return Disposition{false, true, true};
    default:
      return std::nullopt;
  }
}

bool HasOnly(DWORD value, DWORD supported) { return (value & ~supported) == 0; }

struct OpenRequest {
  std::string path;
  DWORD access;
  Disposition disposition;
  bool bReadOnly;
};

int OpenFlags(const OpenRequest& request) {
  const bool bReads = (request.access & GENERIC_READ) != 0;
  const bool bWrites = (request.access & GENERIC_WRITE) != 0;
  // Emptying a file needs write access of the descriptor, even if the handle has none.
  const bool bNeedsWrite = bWrites || request.disposition.bTruncates;
  const int mode = !bNeedsWrite ? O_RDONLY : bReads ? O_RDWR : O_WRONLY;
  // O_NONBLOCK: the open of a named pipe must not wait for its other end.
  return mode | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
}

// Opens or creates. `bExisted` tells which of both happened.
DWORD OpenOrCreate(const OpenRequest& request, Descriptor& file, bool& bExisted) {
  constexpr int kAttempts = 16;
  const mode_t permissions = request.bReadOnly ? 0444 : 0666;
  const int flags = OpenFlags(request);
  const char* path = request.path.c_str();
  int error = ENOENT;
  // Whether the file existed is part of the result, so creating and opening are separate steps;
  // another process may remove the file between them, which starts over.
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (request.disposition.bCreates) {
      file = Descriptor(
          RetryInterrupted([&] { return ::open(path, flags | O_CREAT | O_EXCL, permissions); }));
      if (file.IsOpen()) {
        bExisted = false;
        return ERROR_SUCCESS;
      }
      error = errno;
      if (error != EEXIST) {
        return PathError(error, request.path);
      }
      if (!request.disposition.bOpens) {
        return ERROR_FILE_EXISTS;
      }
    }
    file = Descriptor(RetryInterrupted([&] { return ::open(path, flags); }));
    if (file.IsOpen()) {
      bExisted = true;
      return ERROR_SUCCESS;
    }
    error = errno;
    if (error != ENOENT || !request.disposition.bCreates) {
      break;
    }
  }
  return PathError(error, request.path);
}

// What must hold for a file that existed before it is handed out.
DWORD AcceptExisting(const OpenRequest& request, const Descriptor& file) {
  struct stat status;
  if (::fstat(file.Get(), &status) != 0) {
    return ErrorFromErrno(errno);
  }
  if (S_ISCHR(status.st_mode)) {
    const int flags = ::fcntl(file.Get(), F_GETFL);
    return ::fcntl(file.Get(), F_SETFL, flags & ~O_NONBLOCK) == 0 ? ERROR_SUCCESS
                                                                  : ErrorFromErrno(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return ERROR_ACCESS_DENIED;
  }
  const bool bChanges = (request.access & GENERIC_WRITE) != 0 || request.disposition.bTruncates;
  // Root may write to any file; the attribute holds for root as well.
  if (bChanges && (AttributesOf(status) & FILE_ATTRIBUTE_READONLY) != 0) {
    return ERROR_ACCESS_DENIED;
  }
  if (request.disposition.bTruncates &&
      RetryInterrupted([&] { return ::ftruncate(file.Get(), 0); }) != 0) {
    return ErrorFromErrno(errno);
  }
  return ERROR_SUCCESS;
}

// ERROR_ALREADY_EXISTS together with a handle is a success.
DWORD Open(const OpenRequest& request, DWORD creationDisposition, HANDLE& handle) {
  if (const Fault fault = AskFault(FileCall::CreateFileW); fault.error != 0) {
    return fault.error;
  }
  Descriptor file;
  bool bExisted = false;
  if (const DWORD error = OpenOrCreate(request, file, bExisted); error != ERROR_SUCCESS) {
    return error;
  }
  if (bExisted) {
    if (const DWORD error = AcceptExisting(request, file); error != ERROR_SUCCESS) {
      return error;
    }
  }
  handle = Files().Add({file.Get(), request.access});
  file.Release();
  const bool bReportsExisting =
      creationDisposition == CREATE_ALWAYS || creationDisposition == OPEN_ALWAYS;
  return bExisted && bReportsExisting ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS;
}

DWORD Read(int descriptor, char* buffer, std::size_t size, DWORD& bytesRead) {
  std::size_t total = 0;
  DWORD error = ERROR_SUCCESS;
  while (total < size) {
    const std::size_t part = std::min(size - total, kMaximumTransfer);
    const ssize_t count =
        RetryInterrupted([&] { return ::read(descriptor, buffer + total, part); });
    if (count < 0) {
      error = ErrorFromErrno(errno);
      break;
    }
    if (count == 0) {
      break;
    }
    total += static_cast<std::size_t>(count);
  }
  bytesRead = static_cast<DWORD>(total);
  return error;
}

DWORD Write(int descriptor, const char* buffer, std::size_t size, DWORD& bytesWritten) {
  std::size_t total = 0;
  DWORD error = ERROR_SUCCESS;
  while (total < size) {
    const std::size_t part = std::min(size - total, kMaximumTransfer);
    const ssize_t count =
        RetryInterrupted([&] { return ::write(descriptor, buffer + total, part); });
    if (count <= 0) {
      // A device that takes nothing and reports no error would hold us here for ever.
      error = count < 0 ? ErrorFromErrno(errno) : ERROR_IO_DEVICE;
      break;
    }
    total += static_cast<std::size_t>(count);
  }
  bytesWritten = static_cast<DWORD>(total);
  return error;
}

DWORD WriteWithFault(int descriptor, const char* buffer, std::size_t size, DWORD& bytesWritten) {
  const Fault fault = AskFault(FileCall::WriteFile);
  if (fault.bytesBefore >= 0) {
    size = std::min(size, static_cast<std::size_t>(fault.bytesBefore));
  }
  const DWORD error = Write(descriptor, buffer, size, bytesWritten);
  return error != ERROR_SUCCESS ? error : fault.error;
}

// The descriptor of a handle that has this access.
DWORD DescriptorFor(HANDLE handle, DWORD access, int& descriptor) {
  const std::optional<OpenedFile> file = Files().Find(handle);
  if (!file) {
    return ERROR_INVALID_HANDLE;
  }
  if ((file->access & access) == 0) {
    return ERROR_ACCESS_DENIED;
  }
  descriptor = file->descriptor;
  return ERROR_SUCCESS;
}

DWORD Close(HANDLE handle) {
  const std::optional<OpenedFile> file = Files().Remove(handle);
  if (!file) {
    return ERROR_INVALID_HANDLE;
  }
  const Fault fault = AskFault(FileCall::CloseHandle);
  // The descriptor is gone even if the kernel reports an error, so an interrupted close must not
  // be repeated: another thread may have got the same number.
  const int result = ::close(file->descriptor);
  if (fault.error != 0) {
    return fault.error;
  }
  return result == 0 || errno == EINTR ? ERROR_SUCCESS : ErrorFromErrno(errno);
}

}  // namespace

}  // namespace Platform

HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                   SECURITY_ATTRIBUTES* securityAttributes, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE templateFile) {
  using namespace Platform;
  HANDLE handle = INVALID_HANDLE_VALUE;
  Report([&]() -> DWORD {
    const std::optional<Disposition> disposition = DispositionOf(creationDisposition);
    if (!disposition || desiredAccess == 0 ||
        !HasOnly(desiredAccess, GENERIC_READ | GENERIC_WRITE) ||
        !HasOnly(shareMode, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE) ||
        !HasOnly(flagsAndAttributes,
                 FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_READONLY | FILE_FLAG_SEQUENTIAL_SCAN) ||
        securityAttributes != nullptr || templateFile != nullptr ||
        (creationDisposition == TRUNCATE_EXISTING && (desiredAccess & GENERIC_WRITE) == 0)) {
      return ERROR_INVALID_PARAMETER;
    }
    OpenRequest request{
        {}, desiredAccess, *disposition, (flagsAndAttributes & FILE_ATTRIBUTE_READONLY) != 0};
    if (const DWORD error = ToNativePath(fileName, request.path); error != ERROR_SUCCESS) {
      return error;
    }
    return Open(request, creationDisposition, handle);
  });
  return handle;
}

BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD numberOfBytesToRead, LPDWORD numberOfBytesRead,
              LPOVERLAPPED overlapped) {
  using namespace Platform;
  return Report([&]() -> DWORD {
           if (numberOfBytesRead == nullptr || overlapped != nullptr) {
             return ERROR_INVALID_PARAMETER;
           }
           *numberOfBytesRead = 0;
           int descriptor = -1;
           if (const DWORD error = DescriptorFor(file, GENERIC_READ, descriptor);
               error != ERROR_SUCCESS) {
             return error;
           }
           if (buffer == nullptr && numberOfBytesToRead != 0) {
             return ERROR_NOACCESS;
           }
           if (const TestFaults::Fault fault = AskFault(TestFaults::FileCall::ReadFile);
               fault.error != 0) {
             return fault.error;
           }
           return Read(descriptor, static_cast<char*>(buffer), numberOfBytesToRead,
                       *numberOfBytesRead);
         }) == ERROR_SUCCESS;
}

BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD numberOfBytesToWrite,
               LPDWORD numberOfBytesWritten, LPOVERLAPPED overlapped) {
  using namespace Platform;
  return Report([&]() -> DWORD {
           if (numberOfBytesWritten == nullptr || overlapped != nullptr) {
             return ERROR_INVALID_PARAMETER;
           }
           *numberOfBytesWritten = 0;
           int descriptor = -1;
           if (const DWORD error = DescriptorFor(file, GENERIC_WRITE, descriptor);
               error != ERROR_SUCCESS) {
             return error;
           }
           if (buffer == nullptr && numberOfBytesToWrite != 0) {
             return ERROR_INVALID_USER_BUFFER;
           }
           return WriteWithFault(descriptor, static_cast<const char*>(buffer), numberOfBytesToWrite,
                                 *numberOfBytesWritten);
         }) == ERROR_SUCCESS;
}

BOOL CloseHandle(HANDLE object) {
  return Platform::Report([&] { return Platform::Close(object); }) == ERROR_SUCCESS;
}
