#include <cerrno>

#include "tests/Platform/differential/Record.h"

namespace Differential {

namespace {

template <typename Value>
struct Named {
  const char* name;
  Value value;
};

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

constexpr Named<DWORD> kAccesses[] = {
    {"none", 0}, {"R", GENERIC_READ}, {"W", GENERIC_WRITE}, {"RW", GENERIC_READ | GENERIC_WRITE}};

constexpr Named<DWORD> kDispositions[] = {{"0", 0},
                                          {"CREATE_NEW", CREATE_NEW},
                                          {"CREATE_ALWAYS", CREATE_ALWAYS},
                                          {"OPEN_EXISTING", OPEN_EXISTING},
                                          {"OPEN_ALWAYS", OPEN_ALWAYS},
                                          {"TRUNCATE_EXISTING", TRUNCATE_EXISTING},
                                          {"6", 6}};

constexpr Named<DWORD> kFlags[] = {
    {"0", 0},
    {"normal", FILE_ATTRIBUTE_NORMAL},
    {"readonly", FILE_ATTRIBUTE_READONLY},
    {"normal+readonly", FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_READONLY},
    {"sequential", FILE_FLAG_SEQUENTIAL_SCAN},
    {"normal+sequential", FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN}};

std::string CreateOnce(const Place& object, DWORD access, DWORD share, DWORD disposition,
                       DWORD flags) {
  SetLastError(kStale);
  const HANDLE handle =
      CreateFileW(object.widePath.c_str(), access, share, nullptr, disposition, flags, nullptr);
  const DWORD error = GetLastError();
  const bool bOpened = handle != INVALID_HANDLE_VALUE;
  if (bOpened) {
    CloseHandle(handle);
  }
  // The only call whose last error tells something when it succeeds.
  return std::string(bOpened ? "ok " : "failed ") + std::to_string(error) + ", then " +
         Leftover(object.path);
}

}  // namespace

void RecordCreate(const Place& place, Record& record) {
  for (const State state : kStates) {
    for (const auto& access : kAccesses) {
      for (const auto& disposition : kDispositions) {
        for (const auto& flags : kFlags) {
          record.push_back({"create " + NameOf(state) + " " + access.name + " " + disposition.name +
                                " " + flags.name,
                            CreateOnce(MakeState(place, state), access.value, kShareAll,
                                       disposition.value, flags.value)});
        }
      }
    }
  }
}

void RecordShare(const Place& place, Record& record) {
  for (DWORD firstShare = 0; firstShare <= kShareAll; ++firstShare) {
    for (const auto& first : kAccesses) {
      if (first.value == 0) {
        continue;
      }
      const Place object = MakeState(place, State::File);
      const HANDLE handle = CreateFileW(object.widePath.c_str(), first.value, firstShare, nullptr,
                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
      const std::string opened =
          "share first " + std::string(first.name) + " shares " + std::to_string(firstShare) + ", ";
      for (const auto& second : kAccesses) {
        for (DWORD secondShare = 0; second.value != 0 && secondShare <= kShareAll; ++secondShare) {
          record.push_back(
              {opened + "second " + second.name + " shares " + std::to_string(secondShare),
               CreateOnce(object, second.value, secondShare, OPEN_EXISTING,
                          FILE_ATTRIBUTE_NORMAL)});
        }
      }
      SetLastError(kStale);
      errno = 0;
      const bool bDeleted = _wunlink(object.widePath.c_str()) == 0;
      const int error = errno;
      record.push_back(
          {opened + "delete", bDeleted ? "ok" : "failed, errno " + std::to_string(error)});
      CloseHandle(handle);
    }
  }
  for (const DWORD share : {8u, 0x10u, 0x80000000u, 0xFFFFFFFFu}) {
    record.push_back({"share unknown bits " + std::to_string(share),
                      CreateOnce(MakeState(place, State::File), GENERIC_READ, share, OPEN_EXISTING,
                                 FILE_ATTRIBUTE_NORMAL)});
  }
}

}  // namespace Differential
