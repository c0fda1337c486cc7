#include "CacheTool/System.h"

#include <io.h>

#include <cstdio>

namespace OrloCacheTool {

struct OwnersRights::Own {};

bool IsErrorTerminal() { return _isatty(_fileno(stderr)) != 0; }

OwnersRights::OwnersRights(const CachePlace&) {}

OwnersRights::~OwnersRights() = default;

}  // namespace OrloCacheTool
