#include "Platform/windows/testing/Imports.h"

#include <cstddef>
#include <cstring>
#include <mutex>

#include "Platform/Windows.h"

namespace Platform {

namespace {

// Null is the program.
constexpr const wchar_t* kModules[] = {nullptr, L"WindowsAgentCommon.dll", L"OrloStream.dll",
                                       L"StoreAndForwardStage.dll"};

template <typename T>
T* At(std::byte* base, std::size_t offset) {
  return reinterpret_cast<T*>(base + offset);
}

void Replace(void** slot, const Import& import) {
  if (*slot == import.replacement) {
    return;
  }
  if (*import.original == nullptr) {
    *import.original = *slot;
  }
  DWORD protection = 0;
  VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection);
  *slot = import.replacement;
  VirtualProtect(slot, sizeof(*slot), protection, &protection);
}

// One library's functions: the names stand in one table, the addresses in another of equal length.
void ReplaceIn(std::byte* base, const IMAGE_IMPORT_DESCRIPTOR& library,
               std::span<const Import> imports) {
  const auto* name = At<IMAGE_THUNK_DATA>(base, library.OriginalFirstThunk);
  auto* address = At<IMAGE_THUNK_DATA>(base, library.FirstThunk);
  for (; name->u1.AddressOfData != 0; ++name, ++address) {
    if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) {
      continue;
    }
    const char* const imported = At<IMAGE_IMPORT_BY_NAME>(base, name->u1.AddressOfData)->Name;
    for (const Import& import : imports) {
      if (std::strcmp(imported, import.name) == 0) {
        Replace(reinterpret_cast<void**>(&address->u1.Function), import);
      }
    }
  }
}

void ReplaceIn(HMODULE module, std::span<const Import> imports) {
  auto* const base = reinterpret_cast<std::byte*>(module);
  const auto* const header = At<IMAGE_NT_HEADERS>(base, At<IMAGE_DOS_HEADER>(base, 0)->e_lfanew);
  const IMAGE_DATA_DIRECTORY& directory =
      header->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (directory.Size == 0) {
    return;
  }
  const auto* library = At<IMAGE_IMPORT_DESCRIPTOR>(base, directory.VirtualAddress);
  for (; library->Name != 0; ++library) {
    ReplaceIn(base, *library, imports);
  }
}

}  // namespace

void ReplaceImports(std::span<const Import> imports) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  for (const wchar_t* const name : kModules) {
    if (const HMODULE module = GetModuleHandleW(name)) {
      ReplaceIn(module, imports);
    }
  }
}

}  // namespace Platform
