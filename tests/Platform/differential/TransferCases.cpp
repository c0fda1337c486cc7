#include <cstring>
#include <vector>

#include "tests/Platform/differential/Record.h"

namespace Differential {

namespace {

struct Step {
  char operation;  // r reads, w writes
  DWORD size;
};

struct Sequence {
  const char* name;
  std::vector<Step> steps;
};

HANDLE Open(const Place& object, DWORD access, DWORD disposition) {
  return CreateFileW(object.widePath.c_str(), access,
                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, disposition,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

// One read or write with what it moved. The buffer is filled, so that what a read leaves alone
// shows.
std::string Transfer(HANDLE handle, const Step& step) {
  std::vector<char> buffer(step.size + 1, step.operation == 'w' ? 'w' : '.');
  DWORD count = 0xBAD;
  SetLastError(kStale);
  const BOOL result = step.operation == 'r'
                          ? ReadFile(handle, buffer.data(), step.size, &count, nullptr)
                          : WriteFile(handle, buffer.data(), step.size, &count, nullptr);
  std::string text = std::string(1, step.operation) + std::to_string(step.size) + "=" +
                     Outcome(result != FALSE, GetLastError()) + "," + std::to_string(count);
  if (step.operation == 'r' && step.size <= 16) {
    text += "," + std::string(buffer.data(), step.size);
  }
  return text + ";";
}

std::string Run(const Place& object, DWORD access, DWORD disposition,
                const std::vector<Step>& steps) {
  const HANDLE handle = Open(object, access, disposition);
  std::string text;
  for (const Step& step : steps) {
    text += Transfer(handle, step);
  }
  if (handle != INVALID_HANDLE_VALUE) {
    CloseHandle(handle);
  }
  return text + " " + Leftover(object.path);
}

std::string NullBuffer(HANDLE handle, bool bReads, DWORD size) {
  DWORD count = 0xBAD;
  SetLastError(kStale);
  const BOOL result = bReads ? ReadFile(handle, nullptr, size, &count, nullptr)
                             : WriteFile(handle, nullptr, size, &count, nullptr);
  return Outcome(result != FALSE, GetLastError()) + "," + std::to_string(count);
}

}  // namespace

void RecordTransfer(const Place& place, Record& record) {
  const Sequence sequences[] = {
      {"read-parts", {{'r', 4}, {'r', 4}, {'r', 4}, {'r', 4}}},
      {"read-all-and-beyond", {{'r', 10}, {'r', 1}, {'r', 0}, {'r', 100}}},
      {"read-nothing", {{'r', 0}, {'r', 3}}},
      {"write", {{'w', 4}, {'w', 0}, {'w', 70000}}},
      {"write-then-read", {{'w', 3}, {'r', 4}, {'r', 16}}},
      {"read-then-write", {{'r', 4}, {'w', 2}, {'r', 2}}},
      {"read-to-the-end-then-write", {{'r', 16}, {'w', 5}, {'r', 5}}},
      {"failures-between", {{'r', 2}, {'w', 2}, {'r', 2}, {'w', 0}, {'r', 0}}},
      {"large", {{'w', 1 << 20}, {'r', 1 << 20}}},
  };
  struct {
    const char* name;
    DWORD value;
  } constexpr kAccesses[] = {
      {"R", GENERIC_READ}, {"W", GENERIC_WRITE}, {"RW", GENERIC_READ | GENERIC_WRITE}};
  for (const State state : {State::Missing, State::EmptyFile, State::File}) {
    for (const auto& access : kAccesses) {
      for (const Sequence& sequence : sequences) {
        record.push_back({"transfer " + NameOf(state) + " " + access.name + " " + sequence.name,
                          Run(MakeState(place, state), access.value, OPEN_ALWAYS, sequence.steps)});
      }
      const Place object = MakeState(place, state);
      const HANDLE handle = Open(object, access.value, OPEN_ALWAYS);
      for (const bool bReads : {true, false}) {
        for (const DWORD size : {0u, 3u}) {
          record.push_back({"transfer " + NameOf(state) + " " + access.name + " null-buffer " +
                                (bReads ? "read " : "write ") + std::to_string(size),
                            NullBuffer(handle, bReads, size)});
        }
      }
      CloseHandle(handle);
    }
  }
  // Two handles of one file have a position each.
  const Place object = MakeState(place, State::File);
  const HANDLE reader = Open(object, GENERIC_READ, OPEN_EXISTING);
  const HANDLE writer = Open(object, GENERIC_WRITE, OPEN_EXISTING);
  std::string text;
  for (const auto& [handle, step] : std::vector<std::pair<HANDLE, Step>>{{reader, {'r', 2}},
                                                                         {writer, {'w', 5}},
                                                                         {reader, {'r', 16}},
                                                                         {writer, {'w', 9}},
                                                                         {reader, {'r', 16}}}) {
    text += Transfer(handle, step);
  }
  CloseHandle(reader);
  CloseHandle(writer);
  record.push_back({"transfer two-handles", text + " " + Leftover(object.path)});
}

void RecordHandles(const Place& place, Record& record) {
  const Place object = MakeState(place, State::File);
  const HANDLE closed = Open(object, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING);
  CloseHandle(closed);
  const struct {
    const char* name;
    HANDLE value;
  } handles[] = {{"null", nullptr},
                 {"invalid", INVALID_HANDLE_VALUE},
                 {"made-up", reinterpret_cast<HANDLE>(std::uintptr_t{0x7FFFFF0})},
                 {"closed", closed}};
  for (const auto& handle : handles) {
    const std::string name = std::string("handles ") + handle.name;
    record.push_back({name + " read", Transfer(handle.value, {'r', 4})});
    record.push_back({name + " read-nothing", Transfer(handle.value, {'r', 0})});
    record.push_back({name + " write", Transfer(handle.value, {'w', 4})});
    record.push_back({name + " write-nothing", Transfer(handle.value, {'w', 0})});
    SetLastError(kStale);
    const bool bClosed = CloseHandle(handle.value) != FALSE;
    record.push_back({name + " close", Outcome(bClosed, GetLastError())});
  }
  for (const HANDLE handle : {HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
    const std::string name = handle == nullptr ? "handles null" : "handles invalid";
    WIN32_FIND_DATAW data;
    SetLastError(kStale);
    const bool bFound = FindNextFileW(handle, &data) != FALSE;
    record.push_back({name + " next", Outcome(bFound, GetLastError())});
    SetLastError(kStale);
    const bool bClosed = FindClose(handle) != FALSE;
    record.push_back({name + " find-close", Outcome(bClosed, GetLastError())});
  }
}

}  // namespace Differential
