#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Platform {

// Owns a file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : m_descriptor(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
  }
  ~Descriptor() {
    if (m_descriptor >= 0) {
      ::close(m_descriptor);
    }
  }

  bool IsOpen() const { return m_descriptor >= 0; }
  int Get() const { return m_descriptor; }
  int Release() { return std::exchange(m_descriptor, -1); }

 private:
  int m_descriptor = -1;
};

// Repeats a system call that returns -1 while a signal interrupts it.
template <typename Call>
auto RetryInterrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) {
    result = call();
  }
  return result;
}

}  // namespace Platform
