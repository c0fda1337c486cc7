#pragma once

#include <cstdint>
#include <string>
#include <vector>

// For tests only: changes what the registry layer answers. Any thread.
namespace Platform::TestRegistry {

// Adds or replaces a value below HKEY_LOCAL_MACHINE; the key is made if needed.
void SetValue(const std::wstring& key, const std::wstring& name, std::uint32_t type,
              std::vector<std::uint8_t> data);

// The value, or the whole key, can no longer be found.
void RemoveValue(const std::wstring& key, const std::wstring& name);
void RemoveKey(const std::wstring& key);

// Forgets every change.
void Reset();

}  // namespace Platform::TestRegistry
