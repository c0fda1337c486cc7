#pragma once

#include <cstdint>
#include <string>

namespace Platform {

// The text of a Windows error code in UTF-8, without a line end, for example "Access is denied.".
// A code without a text gives "Unknown error N." with its number. Any thread.
std::string ErrorText(std::uint32_t error);

}  // namespace Platform
