#include "CacheTool/System.h"

#include <io.h>

#include <cstdio>

namespace OrloCacheTool {

bool IsErrorTerminal() { return _isatty(_fileno(stderr)) != 0; }

void GiveToOwnerOf(const std::filesystem::path&, const std::filesystem::path&) {}

}  // namespace OrloCacheTool
