#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>

namespace Platform {

// A number that no handle of this process had before, a multiple of 4 like those of Windows.
std::uintptr_t NextHandleValue();

// The open objects of one kind (files, listings, registry keys) by the value of their handle. A
// handle is a number and never an address or a descriptor: one that is closed, made up or of
// another kind is simply not found, whatever has been opened since. Any thread.
template <typename Object>
class HandleTable {
 public:
  void* Add(Object object) {
    const std::uintptr_t value = NextHandleValue();
    const std::lock_guard lock(m_mutex);
    m_objects.emplace(value, std::move(object));
    return reinterpret_cast<void*>(value);
  }

  std::optional<Object> Find(const void* handle) const {
    const std::lock_guard lock(m_mutex);
    const auto entry = m_objects.find(reinterpret_cast<std::uintptr_t>(handle));
    return entry == m_objects.end() ? std::nullopt : std::optional<Object>(entry->second);
  }

  // Forgets the handle and gives back what it stood for.
  std::optional<Object> Remove(const void* handle) {
    const std::lock_guard lock(m_mutex);
    const auto entry = m_objects.find(reinterpret_cast<std::uintptr_t>(handle));
    if (entry == m_objects.end()) {
      return std::nullopt;
    }
    std::optional<Object> object(std::move(entry->second));
    m_objects.erase(entry);
    return object;
  }

 private:
  mutable std::mutex m_mutex;
  std::unordered_map<std::uintptr_t, Object> m_objects;
};

}  // namespace Platform
