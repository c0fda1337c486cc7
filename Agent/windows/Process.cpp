#include "Agent/Process.h"

#include <fcntl.h>

#include <cstdio>
#include <iterator>

#include "Platform/Windows.h"
#include "WindowsAgentCommon/Text.h"
// Behind windows.h.
#include <shellapi.h>

namespace OrloAgent {

void PrepareProcess() {
  // Events are bytes: no line end is to be changed on its way.
  for (std::FILE* const stream : {stdin, stdout, stderr}) {
    _setmode(_fileno(stream), _O_BINARY);
  }
  // A missing drive is an error of the call, not a window that waits for somebody to close it.
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
}

std::vector<std::string> GetArguments(int, char**) {
  std::vector<std::string> arguments;
  int count = 0;
  if (wchar_t** const wide = CommandLineToArgvW(GetCommandLineW(), &count)) {
    for (int index = 1; index < count; ++index) {
      arguments.push_back(WindowsAgentCommon::ToUtf8(wide[index]));
    }
    LocalFree(wide);
  }
  return arguments;
}

std::filesystem::path GetProgramPath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) {
      return {};
    }
    if (length < path.size()) {
      path.resize(length);
      return path;
    }
    path.resize(path.size() * 2);
  }
}

}  // namespace OrloAgent
