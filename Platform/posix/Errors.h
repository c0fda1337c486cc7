#pragma once

// How the calls of this layer report. Each of them is an internal function that does the work and
// returns a Windows error code, and a thin exported one that hands that code to Report: the last
// error is set there and nowhere else.

#include <new>
#include <utility>

#include "Platform/Windows.h"
#include "Platform/testing/TestFaults.h"

namespace Platform {

// The Windows code of an errno value; ERROR_GEN_FAILURE for one without a counterpart. ENOENT and
// ENOTDIR of a path go through PathError (Paths.h), which knows the two "not found" codes apart.
DWORD ErrorFromErrno(int error);

// The errno value with which the C runtime reports a Windows code; EINVAL for any other code.
int ErrnoFromError(DWORD error);

// Runs `work` and returns the code that it returns; ERROR_NOT_ENOUGH_MEMORY if memory runs out on
// the way.
template <typename Work>
DWORD Guarded(Work&& work) {
  try {
    return std::forward<Work>(work)();
  } catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
  }
}

// As Guarded, and sets the last error to the code.
template <typename Work>
DWORD Report(Work&& work) {
  const DWORD error = Guarded(std::forward<Work>(work));
  SetLastError(error == TestFaults::kFailsWithoutError ? ERROR_SUCCESS : error);
  return error;
}

}  // namespace Platform
