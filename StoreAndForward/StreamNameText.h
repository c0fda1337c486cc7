#pragma once

#include <string>

namespace OrloStoreAndForward {

// A stream's name in UTF-8, as it ends the names of the processors' loggers: up to its first NUL,
// and empty if it takes more than 16383 bytes.
std::string StreamNameText(const std::wstring& streamName);

}  // namespace OrloStoreAndForward
