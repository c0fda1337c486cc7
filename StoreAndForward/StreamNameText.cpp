#include "StoreAndForward/StreamNameText.h"

#include <vector>

#include "Platform/Windows.h"

namespace OrloStoreAndForward {

std::string StreamNameText(const std::wstring& streamName) {
  constexpr int kCapacity = 16384;
  std::vector<char> text(kCapacity, '\0');
  constexpr int kUpToNul = -1;
  if (WideCharToMultiByte(CP_UTF8, 0, streamName.c_str(), kUpToNul, text.data(), kCapacity, nullptr,
                          nullptr) == 0) {
    return {};
  }
  return text.data();
}

}  // namespace OrloStoreAndForward
