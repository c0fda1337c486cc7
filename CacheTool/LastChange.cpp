#include "CacheTool/LastChange.h"

#include <chrono>
#include <thread>

namespace OrloCacheTool {

namespace {

constexpr std::chrono::seconds kRecent{5};
constexpr std::chrono::milliseconds kBetweenLooks{100};
constexpr int kLooks = 20;

}  // namespace

LastChange GetLastChange(const std::filesystem::path& path) {
  std::error_code error;
  const auto changed = std::filesystem::last_write_time(path, error);
  if (error) {
    return error == std::errc::no_such_file_or_directory ? LastChange::Gone : LastChange::LongAgo;
  }
  // A writer of 100 ns ago has not necessarily finished; one of an hour ago has. One of the future
  // wrote before the clock was put back, or on a file system that takes the time from elsewhere.
  const auto age = std::filesystem::file_time_type::clock::now() - changed;
  return age >= -kRecent && age < kRecent ? LastChange::Recent : LastChange::LongAgo;
}

bool SecondLooks::Wait(LastChange change) {
  if (change != LastChange::Recent || m_looks == kLooks) {
    return false;
  }
  ++m_looks;
  std::this_thread::sleep_for(kBetweenLooks);
  return true;
}

}  // namespace OrloCacheTool
