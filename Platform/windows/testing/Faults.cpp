#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>

#include "Platform/Windows.h"
#include "Platform/testing/TestFaults.h"
#include "Platform/windows/testing/Imports.h"

namespace Platform {

namespace {

using TestFaults::Fault;
using TestFaults::FileCall;

std::atomic<std::uint64_t> callCount{0};

std::mutex hookMutex;
std::shared_ptr<const TestFaults::Hook> hook;  // guarded by hookMutex; null without a hook

Fault AskFault(FileCall call) {
  std::shared_ptr<const TestFaults::Hook> current;
  {
    const std::lock_guard lock(hookMutex);
    current = hook;
    callCount.fetch_add(1);
  }
  return current ? (*current)(call) : Fault{};
}

void ReportError(const Fault& fault) {
  SetLastError(fault.error == TestFaults::kFailsWithoutError ? ERROR_SUCCESS : fault.error);
}

// Whether the call fails; the last error is set then.
bool Fails(FileCall call) {
  const Fault fault = AskFault(call);
  if (fault.error != 0) {
    ReportError(fault);
  }
  return fault.error != 0;
}

// Pipes, consoles and what else has a handle are no file calls.
bool IsFile(HANDLE handle) {
  const DWORD before = GetLastError();
  const bool isFile = GetFileType(handle) == FILE_TYPE_DISK;
  SetLastError(before);
  return isFile;
}

void* originalCreateFile;
void* originalReadFile;
void* originalWriteFile;
void* originalCloseHandle;
void* originalFindFirstFile;
void* originalFindNextFile;
void* originalCreateDirectory;
void* originalRemoveDirectory;
void* originalGetFileAttributes;
void* originalUnlink;

HANDLE WINAPI ReplacedCreateFile(LPCWSTR fileName, DWORD access, DWORD shareMode,
                                 LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                                 HANDLE templateFile) {
  if (Fails(FileCall::CreateFileW)) {
    return INVALID_HANDLE_VALUE;
  }
  return reinterpret_cast<decltype(&CreateFileW)>(originalCreateFile)(
      fileName, access, shareMode, security, disposition, flags, templateFile);
}

BOOL WINAPI ReplacedReadFile(HANDLE file, LPVOID buffer, DWORD count, LPDWORD read,
                             LPOVERLAPPED overlapped) {
  if (IsFile(file) && Fails(FileCall::ReadFile)) {
    if (read != nullptr) {
      *read = 0;
    }
    return FALSE;
  }
  return reinterpret_cast<decltype(&ReadFile)>(originalReadFile)(file, buffer, count, read,
                                                                 overlapped);
}

BOOL WINAPI ReplacedWriteFile(HANDLE file, LPCVOID buffer, DWORD count, LPDWORD written,
                              LPOVERLAPPED overlapped) {
  const auto original = reinterpret_cast<decltype(&WriteFile)>(originalWriteFile);
  const Fault fault = IsFile(file) ? AskFault(FileCall::WriteFile) : Fault{};
  DWORD allowed = count;
  if (fault.bytesBefore >= 0) {
    allowed = static_cast<DWORD>(std::min<std::int64_t>(fault.bytesBefore, count));
  }
  if (allowed == 0 && count != 0) {
    if (written != nullptr) {
      *written = 0;
    }
  } else if (original(file, buffer, allowed, written, overlapped) == FALSE) {
    return FALSE;
  }
  ReportError(fault);
  return fault.error == 0 ? TRUE : FALSE;
}

BOOL WINAPI ReplacedCloseHandle(HANDLE object) {
  const Fault fault = IsFile(object) ? AskFault(FileCall::CloseHandle) : Fault{};
  // What fails is the report: the handle is released.
  const BOOL closed = reinterpret_cast<decltype(&CloseHandle)>(originalCloseHandle)(object);
  if (fault.error != 0) {
    ReportError(fault);
    return FALSE;
  }
  return closed;
}

HANDLE WINAPI ReplacedFindFirstFile(LPCWSTR fileName, LPWIN32_FIND_DATAW data) {
  if (Fails(FileCall::FindFirstFileW)) {
    return INVALID_HANDLE_VALUE;
  }
  return reinterpret_cast<decltype(&FindFirstFileW)>(originalFindFirstFile)(fileName, data);
}

BOOL WINAPI ReplacedFindNextFile(HANDLE listing, LPWIN32_FIND_DATAW data) {
  if (Fails(FileCall::FindNextFileW)) {
    return FALSE;
  }
  return reinterpret_cast<decltype(&FindNextFileW)>(originalFindNextFile)(listing, data);
}

BOOL WINAPI ReplacedCreateDirectory(LPCWSTR pathName, LPSECURITY_ATTRIBUTES security) {
  if (Fails(FileCall::CreateDirectoryW)) {
    return FALSE;
  }
  return reinterpret_cast<decltype(&CreateDirectoryW)>(originalCreateDirectory)(pathName, security);
}

BOOL WINAPI ReplacedRemoveDirectory(LPCWSTR pathName) {
  if (Fails(FileCall::RemoveDirectoryW)) {
    return FALSE;
  }
  return reinterpret_cast<decltype(&RemoveDirectoryW)>(originalRemoveDirectory)(pathName);
}

DWORD WINAPI ReplacedGetFileAttributes(LPCWSTR fileName) {
  if (Fails(FileCall::GetFileAttributesW)) {
    return INVALID_FILE_ATTRIBUTES;
  }
  return reinterpret_cast<decltype(&GetFileAttributesW)>(originalGetFileAttributes)(fileName);
}

int ErrnoOf(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_WRITE_PROTECT:
      return EACCES;
    default:
      return EINVAL;
  }
}

int ReplacedUnlink(const wchar_t* fileName) {
  if (Fails(FileCall::Unlink)) {
    errno = ErrnoOf(GetLastError());
    return -1;
  }
  return reinterpret_cast<int (*)(const wchar_t*)>(originalUnlink)(fileName);
}

void Install(std::shared_ptr<const TestFaults::Hook> newHook) {
  static const Import imports[] = {
      {"CreateFileW", AddressOf(&ReplacedCreateFile), &originalCreateFile},
      {"ReadFile", AddressOf(&ReplacedReadFile), &originalReadFile},
      {"WriteFile", AddressOf(&ReplacedWriteFile), &originalWriteFile},
      {"CloseHandle", AddressOf(&ReplacedCloseHandle), &originalCloseHandle},
      {"FindFirstFileW", AddressOf(&ReplacedFindFirstFile), &originalFindFirstFile},
      {"FindNextFileW", AddressOf(&ReplacedFindNextFile), &originalFindNextFile},
      {"CreateDirectoryW", AddressOf(&ReplacedCreateDirectory), &originalCreateDirectory},
      {"RemoveDirectoryW", AddressOf(&ReplacedRemoveDirectory), &originalRemoveDirectory},
      {"GetFileAttributesW", AddressOf(&ReplacedGetFileAttributes), &originalGetFileAttributes},
      {"_wunlink", AddressOf(&ReplacedUnlink), &originalUnlink}};
  ReplaceImports(imports);
  const std::lock_guard lock(hookMutex);
  hook = std::move(newHook);
  callCount.store(0);
}

}  // namespace

namespace TestFaults {

void SetHook(Hook newHook) {
  Install(newHook ? std::make_shared<const Hook>(std::move(newHook)) : nullptr);
}

void FailNth(std::uint64_t n, std::uint32_t error) {
  auto seen = std::make_shared<std::atomic<std::uint64_t>>(0);
  SetHook([seen, n, error](FileCall) -> Fault {
    // A write that fails this way has written nothing.
    return seen->fetch_add(1) == n ? Fault{error, 0} : Fault{};
  });
}

std::uint64_t CallCount() { return callCount.load(); }

void Reset() { Install(nullptr); }

}  // namespace TestFaults

}  // namespace Platform
