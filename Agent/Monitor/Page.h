#pragma once

#include <string_view>

namespace OrloAgent {

// The monitor's page, page.html of this folder, which is built into the program.
std::string_view GetPage();

}  // namespace OrloAgent
