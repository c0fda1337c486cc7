#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "Platform/Windows.h"
#include "Platform/testing/TestRegistry.h"
#include "Platform/windows/testing/Imports.h"

namespace Platform {

namespace {

struct Value {
  DWORD type = REG_NONE;
  std::vector<std::uint8_t> data;
};

// By folded name; nothing is a value that was removed.
using Values = std::map<std::wstring, std::optional<Value>>;

// What tests have changed, by folded path below HKEY_LOCAL_MACHINE.
struct Change {
  bool bExists = false;         // a value was set: the key is there, whatever the registry holds
  bool bHidesRegistry = false;  // the key was removed, with everything below it
  Values values;
};

// A key that was opened while there were changes keeps those that it was opened with.
struct OpenKey {
  std::wstring path;
  bool bHidesRegistry = false;
  Values values;
};

std::mutex mutex;
std::map<std::wstring, Change> changes;  // guarded by mutex
std::map<HKEY, OpenKey> openKeys;        // guarded by mutex

void* originalOpen;
void* originalQuery;
void* originalClose;

std::wstring Folded(std::wstring_view name) {
  std::wstring folded(name);
  std::transform(folded.begin(), folded.end(), folded.begin(), [](wchar_t character) {
    return character >= L'A' && character <= L'Z' ? static_cast<wchar_t>(character - L'A' + L'a')
                                                  : character;
  });
  return folded;
}

std::wstring Join(const std::wstring& path, LPCWSTR subKey) {
  std::wstring joined = path;
  std::wstring_view rest(subKey == nullptr ? L"" : subKey);
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(L'\\'), rest.size());
    if (end > 0) {
      joined += (joined.empty() ? L"" : L"\\") + Folded(rest.substr(0, end));
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return joined;
}

bool IsAtOrBelow(std::wstring_view path, std::wstring_view ancestor) {
  return ancestor.empty() || path == ancestor ||
         (path.starts_with(ancestor) && path[ancestor.size()] == L'\\');
}

// Of the predefined key and of those that were opened here; nothing of others, which no change
// concerns. The caller holds the lock.
std::optional<std::wstring> PathOf(HKEY key) {
  if (key == HKEY_LOCAL_MACHINE) {
    return std::wstring();
  }
  const auto found = openKeys.find(key);
  return found == openKeys.end() ? std::nullopt : std::optional(found->second.path);
}

LSTATUS WINAPI ReplacedOpen(HKEY parent, LPCWSTR subKey, DWORD options, REGSAM access,
                            PHKEY result) {
  const auto original = reinterpret_cast<decltype(&RegOpenKeyExW)>(originalOpen);
  const std::lock_guard lock(mutex);
  const std::optional<std::wstring> parentPath = PathOf(parent);
  if (changes.empty() || !parentPath || result == nullptr) {
    return original(parent, subKey, options, access, result);
  }
  OpenKey key{Join(*parentPath, subKey), false, {}};
  bool bExists = false;
  for (const auto& [path, change] : changes) {
    key.bHidesRegistry =
        key.bHidesRegistry || (change.bHidesRegistry && IsAtOrBelow(key.path, path));
    bExists = bExists || (change.bExists && IsAtOrBelow(path, key.path));
  }
  LSTATUS error = ERROR_FILE_NOT_FOUND;
  if (!key.bHidesRegistry) {
    error = original(parent, subKey, options, access, result);
  }
  if (error != ERROR_SUCCESS) {
    if (!bExists) {
      return error;
    }
    // There is no such key: another one stands in, of which nothing is shown.
    key.bHidesRegistry = true;
    error = original(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, access, result);
    if (error != ERROR_SUCCESS) {
      return error;
    }
  }
  if (const auto change = changes.find(key.path); change != changes.end()) {
    key.values = change->second.values;
  }
  openKeys.insert_or_assign(*result, std::move(key));
  return ERROR_SUCCESS;
}

LSTATUS Give(const Value& value, LPDWORD type, LPBYTE data, LPDWORD dataSize) {
  if (type != nullptr) {
    *type = value.type;
  }
  if (dataSize == nullptr) {
    return ERROR_SUCCESS;
  }
  const auto size = static_cast<DWORD>(value.data.size());
  const DWORD capacity = std::exchange(*dataSize, size);
  if (data == nullptr) {
    return ERROR_SUCCESS;
  }
  if (size > capacity) {
    return ERROR_MORE_DATA;
  }
  if (size != 0) {
    std::memcpy(data, value.data.data(), size);
  }
  return ERROR_SUCCESS;
}

LSTATUS WINAPI ReplacedQuery(HKEY handle, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                             LPDWORD dataSize) {
  {
    const std::lock_guard lock(mutex);
    if (const auto key = openKeys.find(handle); key != openKeys.end()) {
      const Values& values = key->second.values;
      if (const auto value = values.find(Folded(name == nullptr ? L"" : name));
          value != values.end()) {
        return value->second ? Give(*value->second, type, data, dataSize) : ERROR_FILE_NOT_FOUND;
      }
      if (key->second.bHidesRegistry) {
        return ERROR_FILE_NOT_FOUND;
      }
    }
  }
  return reinterpret_cast<decltype(&RegQueryValueExW)>(originalQuery)(handle, name, reserved, type,
                                                                      data, dataSize);
}

LSTATUS WINAPI ReplacedClose(HKEY key) {
  {
    const std::lock_guard lock(mutex);
    openKeys.erase(key);
  }
  return reinterpret_cast<decltype(&RegCloseKey)>(originalClose)(key);
}

void Install() {
  static const Import imports[] = {{"RegOpenKeyExW", AddressOf(&ReplacedOpen), &originalOpen},
                                   {"RegQueryValueExW", AddressOf(&ReplacedQuery), &originalQuery},
                                   {"RegCloseKey", AddressOf(&ReplacedClose), &originalClose}};
  ReplaceImports(imports);
}

}  // namespace

namespace TestRegistry {

void SetValue(const std::wstring& key, const std::wstring& name, std::uint32_t type,
              std::vector<std::uint8_t> data) {
  Install();
  const std::lock_guard lock(mutex);
  Change& change = changes[Join({}, key.c_str())];
  change.bExists = true;
  change.values[Folded(name)] = Value{type, std::move(data)};
}

void RemoveValue(const std::wstring& key, const std::wstring& name) {
  Install();
  const std::lock_guard lock(mutex);
  changes[Join({}, key.c_str())].values[Folded(name)] = std::nullopt;
}

void RemoveKey(const std::wstring& key) {
  Install();
  const std::lock_guard lock(mutex);
  const std::wstring path = Join({}, key.c_str());
  std::erase_if(changes, [&](const auto& change) { return IsAtOrBelow(change.first, path); });
  changes[path].bHidesRegistry = true;
}

void Reset() {
  const std::lock_guard lock(mutex);
  changes.clear();
}

}  // namespace TestRegistry

}  // namespace Platform
