#include <algorithm>
#include <fstream>

#include "tests/Platform/differential/Record.h"

namespace Differential {

namespace {

namespace fs = std::filesystem;

constexpr const char* kFiles[] = {
    "a",   "b.txt", ".hidden",          "x.y.z", "noext", "readme", "A.DAT", "12",
    "1.2", "lock",  "long-name-without"};
constexpr const char* kDirectories[] = {"dir", "dir.d", ".dir", "{7a1c}"};

// Sorted: the order is not part of what is compared.
std::string List(const std::wstring& pattern) {
  WIN32_FIND_DATAW data;
  SetLastError(kStale);
  const HANDLE handle = FindFirstFileW(pattern.c_str(), &data);
  if (handle == INVALID_HANDLE_VALUE) {
    return Outcome(false, GetLastError());
  }
  std::vector<std::string> entries;
  DWORD error = ERROR_SUCCESS;
  do {
    const bool bDirectory = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    const bool bReadOnly = (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    entries.push_back(Escaped(data.cFileName) + (bDirectory ? "/" : "") + (bReadOnly ? "!" : "") +
                      ":" + std::to_string(data.nFileSizeHigh) + ":" +
                      std::to_string(data.nFileSizeLow));
    SetLastError(kStale);
  } while (FindNextFileW(handle, &data) != FALSE);
  error = GetLastError();
  SetLastError(kStale);
  const bool bAgain = FindNextFileW(handle, &data) != FALSE;
  const DWORD errorAgain = GetLastError();
  const bool bClosed = FindClose(handle) != FALSE;
  std::ranges::sort(entries);
  std::string text = "ok";
  for (const std::string& entry : entries) {
    text += " " + entry;
  }
  return text + ", end " + std::to_string(error) + ", again " + Outcome(bAgain, errorAgain) +
         ", close " + (bClosed ? "ok" : "failed");
}

void Fill(const Place& directory) {
  std::size_t size = 0;
  for (const char* name : kFiles) {
    WriteTextFile(directory.path / name, std::string(size++, 'x'));
  }
  for (const char* name : kDirectories) {
    fs::create_directory(directory.path / name);
  }
}

}  // namespace

void RecordListing(const Place& place, Record& record) {
  const Place full = MakeScene(place);
  Fill(full);
  const Place empty = MakeScene(place);
  const Place file = MakeState(place, State::File);
  const Place missing = MakeState(place, State::Missing);
  const Place readOnly = MakeState(place, State::ReadOnlyFile);
  const struct {
    const char* name;
    const Place& place;
  } directories[] = {{"full", full}, {"empty", empty}, {"file", file}, {"missing", missing}};
  constexpr const wchar_t* kPatterns[] = {
      L"*",     L"*.",   L"*.*", L"a",     L"b.txt", L".hidden", L"dir",
      L"dir.d", L"gone", L".",   L"..",    L"",      L"b.txt\\", L"dir\\",
      L"*\\",   L"a*",   L"?",   L"*.txt", L"*.*.*", L"a\\*",    L"gone\\*"};
  for (const auto& directory : directories) {
    for (const wchar_t* pattern : kPatterns) {
      for (const wchar_t* separator : {L"\\", L"/", L"\\\\"}) {
        record.push_back({"listing " + std::string(directory.name) + " " + Escaped(separator) +
                              " " + Escaped(pattern),
                          List(directory.place.widePath + separator + pattern)});
      }
    }
    record.push_back({"listing " + std::string(directory.name) + " without separator",
                      List(directory.place.widePath).substr(0, 2)});
  }
  record.push_back({"listing read-only by name", List(readOnly.widePath)});
  record.push_back({"listing empty pattern", List(L"")});
  const Place many = MakeScene(place);
  for (int number = 0; number < 300; ++number) {
    WriteTextFile(many.path / ("n" + std::to_string(number) + (number % 3 == 0 ? "" : ".c")), "");
  }
  for (const wchar_t* pattern : {L"*", L"*.", L"*.*"}) {
    record.push_back({"listing many " + Escaped(pattern), List(many.widePath + L"\\" + pattern)});
  }
}

}  // namespace Differential
