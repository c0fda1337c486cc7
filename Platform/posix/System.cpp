#include <unistd.h>

#include <chrono>
#include <thread>

#include "Platform/Windows.h"

void GetSystemInfo(LPSYSTEM_INFO systemInfo) {
  if (systemInfo == nullptr) {
    return;
  }
  *systemInfo = {};
  systemInfo->dwPageSize = static_cast<DWORD>(::sysconf(_SC_PAGESIZE));
  systemInfo->dwNumberOfProcessors = static_cast<DWORD>(::sysconf(_SC_NPROCESSORS_ONLN));
}

void Sleep(DWORD milliseconds) {
  constexpr DWORD kInfinite = 0xFFFFFFFFu;
  if (milliseconds == 0) {
    std::this_thread::yield();
    return;
  }
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  } while (milliseconds == kInfinite);
}
