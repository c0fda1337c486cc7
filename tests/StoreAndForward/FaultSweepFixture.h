#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/StoreAndForward/CacheFixture.h"

namespace OrloStoreAndForward {

// Lets every file call of an operation fail, one after the other, with every error that the call
// may plausibly meet, alone and together with all calls that follow it.
class FaultSweepFixture : public CacheFixture {
 protected:
  using FileCall = Platform::TestFaults::FileCall;
  using Strings = std::vector<std::string>;

  // What failed during one attempt.
  struct Failure {
    std::size_t position;  // among the operation's calls, counted from 0
    FileCall call;
    std::uint32_t error;
    // WriteFile: the bytes that were written all the same; negative: all.
    std::int64_t written;
    // Whether every later call failed as well, with the same error.
    bool bAndAllAfter;
  };

  // One attempt: makes what the operation needs, does the operation through Meanwhile, and checks
  // what is left. `m_failure` tells what failed: nothing in the first and in the last attempt.
  // Every attempt finds an empty data directory and a disk manager that was asked nothing.
  using Attempt = std::function<void()>;
  void Sweep(const Attempt& attempt);

  // Does the operation while its calls fail as the sweep wants it. No descriptor may stay open.
  void Meanwhile(const std::function<void()>& operation);

  bool Failed(FileCall call) const { return m_failure && m_failure->call == call; }

  // The payloads of the oldest chunk, which is removed.
  Strings Take(EventCache& cache);
  // That chunks can be stored and read back, after those that are queued.
  void ExpectToWork(EventCache& cache);

  // Bytes that the disk manager granted, and that it got back.
  std::uint64_t Reserved() const;
  std::uint64_t Released() const;

  std::optional<Failure> m_failure;

 private:
  void Try(const Attempt& attempt, std::optional<Failure> failure);

  // What the operation called when nothing failed.
  std::vector<FileCall> m_calls;
};

}  // namespace OrloStoreAndForward
