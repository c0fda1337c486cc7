#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Windows.h"
#include "Platform/posix/Errors.h"
#include "Platform/posix/Handles.h"
#include "Platform/posix/Names.h"
#include "Platform/posix/TimeZones.h"
#include "Platform/testing/TestRegistry.h"

namespace Platform {

namespace {

struct Value {
  DWORD type = REG_NONE;
  std::vector<std::uint8_t> data;
};

// By folded name.
using Values = std::map<std::wstring, Value>;

// An opened key keeps the values that it had when it was opened.
struct Key {
  std::wstring path;  // folded, below HKEY_LOCAL_MACHINE, without separators at its ends
  Values values;
};

HandleTable<std::shared_ptr<const Key>>& Keys() {
  static auto& keys = *new HandleTable<std::shared_ptr<const Key>>;
  return keys;
}

constexpr std::wstring_view kTimeZonesPath =
    L"software\\microsoft\\windows nt\\currentversion\\time zones";

// What tests have changed, by folded path.
struct Change {
  bool bExists = false;        // a value was set: the key is there, whatever is built in
  bool bHidesBuiltIn = false;  // the key was removed, with everything below it
  std::map<std::wstring, std::optional<Value>> values;  // nothing: removed
};

std::mutex changesMutex;
std::map<std::wstring, Change> changes;  // guarded by changesMutex

bool IsAtOrBelow(std::wstring_view path, std::wstring_view ancestor) {
  return ancestor.empty() || path == ancestor ||
         (path.starts_with(ancestor) && path[ancestor.size()] == L'\\');
}

std::wstring Join(const std::wstring& path, LPCWSTR subKey) {
  std::wstring joined = path;
  std::wstring_view rest(subKey == nullptr ? L"" : subKey);
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(L'\\'), rest.size());
    if (end > 0) {
      if (!joined.empty()) {
        joined.push_back(L'\\');
      }
      joined += FoldedName(rest.substr(0, end));
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return joined;
}

// The key as the system has it, without changes by tests.
std::optional<Values> BuiltIn(const std::wstring& path) {
  if (IsAtOrBelow(kTimeZonesPath, path)) {
    return Values{};
  }
  if (!IsAtOrBelow(path, kTimeZonesPath)) {
    return std::nullopt;
  }
  const std::wstring_view name = std::wstring_view(path).substr(kTimeZonesPath.size() + 1);
  const std::optional<WindowsZone> zone = LoadWindowsZone(name);
  if (!zone) {
    return std::nullopt;
  }
  Values values;
  if (zone->record) {
    const auto bytes = BytesOfRecord(*zone->record);
    values[L"tzi"] = {REG_BINARY, {bytes.begin(), bytes.end()}};
  }
  return values;
}

// Nothing if there is no such key.
std::optional<Values> ReadKey(const std::wstring& path) {
  std::optional<Values> values = BuiltIn(path);
  const std::lock_guard lock(changesMutex);
  bool bExists = false;
  for (const auto& [changedPath, change] : changes) {
    if (change.bHidesBuiltIn && IsAtOrBelow(path, changedPath)) {
      values.reset();
    }
    bExists = bExists || (change.bExists && IsAtOrBelow(changedPath, path));
  }
  if (bExists && !values) {
    values.emplace();
  }
  const auto change = changes.find(path);
  if (values && change != changes.end()) {
    for (const auto& [name, value] : change->second.values) {
      values->erase(name);
      if (value) {
        values->emplace(name, *value);
      }
    }
  }
  return values;
}

// An opened key, or the predefined one, which is always open.
std::shared_ptr<const Key> FindKey(HKEY handle) {
  if (handle == HKEY_LOCAL_MACHINE) {
    auto key = std::make_shared<Key>();
    key->values = ReadKey(L"").value_or(Values{});
    return key;
  }
  return Keys().Find(handle).value_or(nullptr);
}

DWORD OpenKey(HKEY parent, LPCWSTR subKey, PHKEY result) {
  const std::shared_ptr<const Key> parentKey = FindKey(parent);
  if (!parentKey) {
    return ERROR_INVALID_HANDLE;
  }
  if (subKey != nullptr && subKey[0] == L'\\') {
    return ERROR_BAD_PATHNAME;
  }
  auto key = std::make_shared<Key>();
  key->path = Join(parentKey->path, subKey);
  std::optional<Values> values = ReadKey(key->path);
  if (!values) {
    return ERROR_FILE_NOT_FOUND;
  }
  key->values = std::move(*values);
  *result = static_cast<HKEY>(Keys().Add(std::move(key)));
  return ERROR_SUCCESS;
}

DWORD QueryValue(HKEY handle, LPCWSTR name, LPDWORD type, LPBYTE data, LPDWORD dataSize) {
  const std::shared_ptr<const Key> key = FindKey(handle);
  if (!key) {
    return ERROR_INVALID_HANDLE;
  }
  const auto entry = key->values.find(FoldedName(name == nullptr ? L"" : name));
  if (entry == key->values.end()) {
    return ERROR_FILE_NOT_FOUND;
  }
  const Value& value = entry->second;
  if (type != nullptr) {
    *type = value.type;
  }
  if (dataSize == nullptr) {
    return ERROR_SUCCESS;
  }
  const auto size = static_cast<DWORD>(value.data.size());
  const DWORD capacity = *dataSize;
  *dataSize = size;
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

}  // namespace

namespace TestRegistry {

void SetValue(const std::wstring& key, const std::wstring& name, std::uint32_t type,
              std::vector<std::uint8_t> data) {
  const std::lock_guard lock(changesMutex);
  Change& change = changes[Join({}, key.c_str())];
  change.bExists = true;
  change.values[FoldedName(name)] = Value{type, std::move(data)};
}

void RemoveValue(const std::wstring& key, const std::wstring& name) {
  const std::lock_guard lock(changesMutex);
  changes[Join({}, key.c_str())].values[FoldedName(name)] = std::nullopt;
}

void RemoveKey(const std::wstring& key) {
  const std::lock_guard lock(changesMutex);
  const std::wstring path = Join({}, key.c_str());
  std::erase_if(changes, [&](const auto& change) { return IsAtOrBelow(change.first, path); });
  changes[path].bHidesBuiltIn = true;
}

void Reset() {
  const std::lock_guard lock(changesMutex);
  changes.clear();
}

}  // namespace TestRegistry

}  // namespace Platform

LSTATUS RegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD options, REGSAM desiredAccess,
                      PHKEY resultKey) {
  if (resultKey == nullptr || options != 0 ||
      (desiredAccess != KEY_QUERY_VALUE && desiredAccess != KEY_READ)) {
    return ERROR_INVALID_PARAMETER;
  }
  return static_cast<LSTATUS>(
      Platform::Guarded([&] { return Platform::OpenKey(key, subKey, resultKey); }));
}

LSTATUS RegQueryValueExW(HKEY key, LPCWSTR valueName, LPDWORD reserved, LPDWORD type, LPBYTE data,
                         LPDWORD dataSize) {
  if (reserved != nullptr || (data != nullptr && dataSize == nullptr)) {
    return ERROR_INVALID_PARAMETER;
  }
  return static_cast<LSTATUS>(Platform::Guarded(
      [&] { return Platform::QueryValue(key, valueName, type, data, dataSize); }));
}

LSTATUS RegCloseKey(HKEY key) {
  const bool bWasOpen = key == HKEY_LOCAL_MACHINE || Platform::Keys().Remove(key).has_value();
  return bWasOpen ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}
