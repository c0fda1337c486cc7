#pragma once

#include <cstdint>
#include <functional>

// For tests only: lets the file calls of Platform/Windows.h fail. A fault stands in for the system
// call, so what the caller sees is what a failing kernel would give. Any thread, though a hook is
// shared by all of them. On Windows only calls made by this project's own modules are seen.
namespace Platform::TestFaults {

// Named as the calls are.
enum class FileCall {
  CreateFileW,
  ReadFile,
  WriteFile,
  CloseHandle,
  FindFirstFileW,
  FindNextFileW,
  CreateDirectoryW,
  RemoveDirectoryW,
  GetFileAttributesW,
  Unlink  // _wunlink
};

// The error of a fault by which a call fails and reports no error: the last error is 0 then.
inline constexpr std::uint32_t kFailsWithoutError = 0xFFFFFFFF;

struct Fault {
  // The Windows error that the call reports; 0 lets the call happen.
  std::uint32_t error = 0;
  // WriteFile only: bytes that are still written before the error, or, with an error of 0, the
  // number of bytes after which the call ends "successfully" short. Negative: all of them.
  std::int64_t bytesBefore = -1;
};

// Asked before every file call; called on the thread that makes the call. An empty hook removes it.
using Hook = std::function<Fault(FileCall)>;
void SetHook(Hook hook);

// A hook that lets the n-th file call (0 is the next one) fail with `error`, and only that one.
void FailNth(std::uint64_t n, std::uint32_t error);

// The number of file calls seen since the last SetHook, FailNth or Reset.
std::uint64_t CallCount();

void Reset();

}  // namespace Platform::TestFaults
