#pragma once

#include <span>

namespace Platform {

// One function that the project's modules import from the system, and what is called instead.
struct Import {
  const char* name;
  void* replacement;
  // Where the system's own function is put; null as long as no module imports it.
  void** original;
};

// Enters the replacements into the import tables of the program and of the project's libraries that
// are loaded. Other libraries (C++ runtime, ACE) keep calling the system. May be called again, for
// libraries that have been loaded since. Never undone: a replacement without anything to do calls
// the original. Any thread.
void ReplaceImports(std::span<const Import> imports);

// For the table entries: the address of a function of whatever type.
template <typename Function>
void* AddressOf(Function* function) {
  return reinterpret_cast<void*>(function);
}

}  // namespace Platform
