#include <vector>

#include "tests/Platform/differential/Record.h"

namespace Differential {

namespace {

constexpr wchar_t kZones[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones";

std::string Result(LSTATUS status) {
  return Outcome(status == ERROR_SUCCESS, static_cast<DWORD>(status));
}

std::string Open(HKEY parent, const wchar_t* name, DWORD options, REGSAM access) {
  HKEY key = nullptr;
  const LSTATUS status = RegOpenKeyExW(parent, name, options, access, &key);
  if (status == ERROR_SUCCESS) {
    RegCloseKey(key);
  }
  return Result(status);
}

// A value's type and its bytes, or what its query failed with.
std::string Query(HKEY key, const wchar_t* name) {
  BYTE data[64] = {};
  DWORD size = sizeof data;
  DWORD type = 0xBAD;
  const LSTATUS status = RegQueryValueExW(key, name, nullptr, &type, data, &size);
  return status == ERROR_SUCCESS ? "ok " + std::to_string(type) + " " + Hex(data, size)
                                 : Result(status);
}

void RecordSizes(HKEY key, Record& record) {
  for (const DWORD capacity : {0u, 1u, 43u, 44u, 45u, 64u}) {
    BYTE data[64] = {};
    DWORD size = capacity;
    DWORD type = 0xBAD;
    const LSTATUS status = RegQueryValueExW(key, L"TZI", nullptr, &type, data, &size);
    record.push_back({"registry capacity " + std::to_string(capacity),
                      Result(status) + ", size " + std::to_string(size) + ", type " +
                          std::to_string(type) + ", " +
                          (status == ERROR_SUCCESS ? Hex(data, size) : "")});
  }
  DWORD size = 0xBAD;
  DWORD type = 0xBAD;
  LSTATUS status = RegQueryValueExW(key, L"TZI", nullptr, &type, nullptr, &size);
  record.push_back({"registry size alone", Result(status) + ", size " + std::to_string(size) +
                                               ", type " + std::to_string(type)});
  status = RegQueryValueExW(key, L"TZI", nullptr, &type, nullptr, nullptr);
  record.push_back({"registry type alone", Result(status)});
  status = RegQueryValueExW(key, L"TZI", nullptr, nullptr, nullptr, nullptr);
  record.push_back({"registry nothing asked", Result(status)});
  BYTE data[64];
  status = RegQueryValueExW(key, L"TZI", nullptr, &type, data, nullptr);
  record.push_back({"registry data without size", Result(status)});
}

}  // namespace

void RecordRegistryOf(const Zone& zone, Record& record) {
  HKEY key = nullptr;
  const std::wstring path = kZones + (L"\\" + std::wstring(zone.name.begin(), zone.name.end()));
  const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key);
  std::string text = Result(status);
  if (status == ERROR_SUCCESS) {
    text = Query(key, L"TZI");
    RegCloseKey(key);
  }
  record.push_back({"zone " + zone.name, text});
}

void RecordRegistry(Record& record) {
  const std::wstring zone = std::wstring(kZones) + L"\\W. Europe Standard Time";
  const struct {
    const char* name;
    std::wstring path;
  } paths[] = {
      {"zones", kZones},
      {"zone", zone},
      {"zone in capitals", std::wstring(kZones) + L"\\W. EUROPE STANDARD TIME"},
      {"zones in small letters",
       L"software\\microsoft\\windows nt\\currentversion\\time zones\\w. europe standard time"},
      {"separator behind", zone + L"\\"},
      {"separator before", L"\\" + zone},
      {"slash", std::wstring(kZones) + L"/W. Europe Standard Time"},
      {"doubled separator", std::wstring(kZones) + L"\\\\W. Europe Standard Time"},
      {"missing zone", std::wstring(kZones) + L"\\Atlantis Standard Time"},
      {"missing key", L"SOFTWARE\\No Such Key\\At All"},
      {"below a zone", zone + L"\\Below"},
      {"blank behind", zone + L" "},
      {"empty", L""},
  };
  for (const auto& path : paths) {
    record.push_back({std::string("registry open ") + path.name,
                      Open(HKEY_LOCAL_MACHINE, path.path.c_str(), 0, KEY_READ)});
    record.push_back({std::string("registry open to query ") + path.name,
                      Open(HKEY_LOCAL_MACHINE, path.path.c_str(), 0, KEY_QUERY_VALUE)});
  }
  record.push_back({"registry open null name", Open(HKEY_LOCAL_MACHINE, nullptr, 0, KEY_READ)});
  record.push_back({"registry open below null", Open(nullptr, zone.c_str(), 0, KEY_READ)});
  record.push_back({"registry close null", Result(RegCloseKey(nullptr))});
  const HKEY madeUp = reinterpret_cast<HKEY>(std::uintptr_t{0x7FFFFF0});
  record.push_back({"registry open below made-up", Open(madeUp, zone.c_str(), 0, KEY_READ)});
  record.push_back({"registry query made-up", Query(madeUp, L"TZI")});
  record.push_back({"registry query null", Query(nullptr, L"TZI")});
  record.push_back({"registry close made-up", Result(RegCloseKey(madeUp))});
  HKEY zones = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kZones, 0, KEY_READ, &zones) == ERROR_SUCCESS) {
    record.push_back(
        {"registry open below a key", Open(zones, L"W. Europe Standard Time", 0, KEY_READ)});
    record.push_back({"registry open the same key", Open(zones, L"", 0, KEY_READ)});
    record.push_back({"registry query a key without values", Query(zones, L"TZI")});
    RegCloseKey(zones);
  }
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, zone.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS) {
    RecordSizes(key, record);
    record.push_back({"registry query small letters", Query(key, L"tzi")});
    record.push_back({"registry query missing value", Query(key, L"No such value")});
    record.push_back({"registry query empty name", Query(key, L"")});
    record.push_back({"registry query null name", Query(key, nullptr)});
    record.push_back({"registry close", Result(RegCloseKey(key))});
    record.push_back({"registry close again", Result(RegCloseKey(key))});
    record.push_back({"registry query closed", Query(key, L"TZI")});
  }
}

}  // namespace Differential
