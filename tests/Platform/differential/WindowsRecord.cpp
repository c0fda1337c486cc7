// The program for Windows: makes every call of the grid and writes what came of it.
//
//   windows-record.exe DIRECTORY FILE
//
// DIRECTORY must exist and be empty. FILE gets one line per case: its name, a tab, its result.

#include <algorithm>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>

#include "tests/Platform/differential/Record.h"

namespace {

using namespace Differential;

std::vector<Zone> ZonesOfTheRegistry() {
  constexpr wchar_t kZones[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones";
  std::vector<Zone> zones;
  HKEY parent = nullptr;
  RegOpenKeyExW(HKEY_LOCAL_MACHINE, kZones, 0, KEY_READ, &parent);
  for (DWORD index = 0;; ++index) {
    wchar_t name[256];
    auto length = static_cast<DWORD>(std::size(name));
    if (RegEnumKeyExW(parent, index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS) {
      break;
    }
    Zone zone;
    auto size = static_cast<DWORD>(zone.record.size());
    if (RegGetValueW(parent, name, L"TZI", RRF_RT_REG_BINARY, nullptr, zone.record.data(), &size) ==
            ERROR_SUCCESS &&
        size == zone.record.size()) {
      zone.name = Escaped({name, length});
      zones.push_back(zone);
    }
  }
  RegCloseKey(parent);
  std::ranges::sort(zones, {}, &Zone::name);
  return zones;
}

Record MakeRecord(const Place& place) {
  Record record;
  RecordCreate(place, record);
  RecordShare(place, record);
  RecordSpelling(place, record);
  RecordNames(place, record);
  RecordTransfer(place, record);
  RecordHandles(place, record);
  RecordDirectories(place, record);
  RecordListing(place, record);
  RecordCalendar(record);
  RecordRules(record);
  RecordRegistry(record);
  RecordText(record);
  for (const Zone& zone : ZonesOfTheRegistry()) {
    RecordRegistryOf(zone, record);
    RecordConversions(zone, record);
  }
  return record;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "windows-record: DIRECTORY FILE\n";
    return 2;
  }
  try {
    const std::filesystem::path directory(argv[1]);
    std::ofstream file(argv[2], std::ios::binary);
    for (const Line& line : MakeRecord({directory, directory.wstring()})) {
      file << line.name << '\t' << line.result << '\n';
    }
    return file.flush() ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << "windows-record: " << error.what() << '\n';
    return 1;
  }
}
