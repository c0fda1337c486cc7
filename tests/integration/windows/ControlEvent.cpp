// control-event.exe EVENT PROGRAM [ARGUMENTS...]: starts the program with its own standard error,
// and when a line comes on standard input, lets the system's own routine for control events run in
// it: what a console does at a key or when it is closed. EVENT: break, close, logoff. Ends with the
// program's exit code.
//
// There is no call for these events from outside, and a console that can be closed needs a display.

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "Platform/Windows.h"

namespace {

int Fail(const char* what) {
  std::fprintf(stderr, "control-event: %s failed with error %lu\n", what, GetLastError());
  return 99;
}

// One word of a command line, as the run-time library takes it apart again.
std::wstring Quote(const std::wstring& word) { return L"\"" + word + L"\""; }

DWORD GetEvent(const std::wstring& name) {
  return name == L"break"   ? CTRL_BREAK_EVENT
         : name == L"close" ? CTRL_CLOSE_EVENT
                            : CTRL_LOGOFF_EVENT;
}

LPTHREAD_START_ROUTINE GetControlRoutine() {
  const FARPROC routine = GetProcAddress(GetModuleHandleW(L"kernelbase.dll"), "CtrlRoutine");
  LPTHREAD_START_ROUTINE start = nullptr;
  static_assert(sizeof start == sizeof routine);
  std::memcpy(&start, &routine, sizeof start);
  return start;
}

}  // namespace

int wmain(int count, wchar_t** words) {
  if (count < 3) {
    return 98;
  }
  std::wstring command = Quote(words[2]);
  for (int i = 3; i < count; ++i) {
    command += L" " + Quote(words[i]);
  }
  STARTUPINFOW start{};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdInput = INVALID_HANDLE_VALUE;
  start.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
  start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start,
                      &process)) {
    return Fail("CreateProcess");
  }
  std::string line;
  std::getline(std::cin, line);
  const LPTHREAD_START_ROUTINE routine = GetControlRoutine();
  const DWORD event = GetEvent(words[1]);
  const HANDLE thread =
      routine == nullptr
          ? nullptr
          : CreateRemoteThread(process.hProcess, nullptr, 0, routine,
                               reinterpret_cast<void*>(std::uintptr_t{event}), 0, nullptr);
  if (thread == nullptr) {
    const int result = Fail("CreateRemoteThread");
    TerminateProcess(process.hProcess, 97);
    return result;
  }
  WaitForSingleObject(process.hProcess, INFINITE);
  DWORD code = 96;
  GetExitCodeProcess(process.hProcess, &code);
  return static_cast<int>(code);
}
