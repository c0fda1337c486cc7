#pragma once

#include <cstdint>

namespace OrloStream {

// The answer of a stage or destination to one message: a 32-bit word, 0 for success. As the int
// that put() returns, a failed status is negative.
class Status {
 public:
  static constexpr std::uint32_t kFailed = 0x80000000u;
  static constexpr std::uint32_t kBackpressure = 0x40000000u;

  constexpr Status() = default;
  constexpr explicit Status(std::uint32_t word) : m_word(word) {}
  static constexpr Status FromInt(int result) { return Status(static_cast<std::uint32_t>(result)); }

  // The message was not taken and will not be; wins over Backpressure.
  constexpr bool Failed() const { return (m_word & kFailed) != 0; }

  // The message was not taken now: offer it again later.
  constexpr bool Backpressure() const { return !Failed() && (m_word & kBackpressure) != 0; }

  constexpr void Set(std::uint32_t bits) { m_word |= bits; }
  constexpr std::uint32_t GetWord() const { return m_word; }
  constexpr int ToInt() const { return static_cast<int>(m_word); }

 private:
  std::uint32_t m_word = 0;
};

}  // namespace OrloStream
