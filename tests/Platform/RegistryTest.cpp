#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/Windows.h"
#include "Platform/testing/TestRegistry.h"

namespace PlatformTest {
namespace {

namespace TestRegistry = Platform::TestRegistry;

const std::wstring kZones = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones";
const std::wstring kBerlin = kZones + L"\\W. Europe Standard Time";

class RegistryTest : public testing::Test {
 protected:
  ~RegistryTest() override {
    for (const HKEY key : m_opened) {
      EXPECT_EQ(RegCloseKey(key), 0);
    }
    TestRegistry::Reset();
  }

  // Null if it can't be opened; the code in `m_error`.
  HKEY Open(const std::wstring& path, HKEY parent = HKEY_LOCAL_MACHINE) {
    HKEY key = nullptr;
    m_error = RegOpenKeyExW(parent, path.c_str(), 0, KEY_QUERY_VALUE, &key);
    if (m_error == 0) {
      m_opened.push_back(key);
    }
    return key;
  }

  bool Exists(const std::wstring& path) { return Open(path) != nullptr; }

  LSTATUS Query(HKEY key, const wchar_t* name, std::vector<std::uint8_t>& data) {
    DWORD size = static_cast<DWORD>(data.size());
    const LSTATUS result = RegQueryValueExW(key, name, nullptr, nullptr, data.data(), &size);
    data.resize(result == 0 ? size : 0);
    return result;
  }

  std::vector<HKEY> m_opened;
  LSTATUS m_error = 0;
};

TEST_F(RegistryTest, ZoneHasABinaryRecordOf44Bytes) {
  const HKEY key = Open(kBerlin);
  ASSERT_NE(key, nullptr);
  BYTE data[44];
  DWORD size = sizeof data;
  DWORD type = REG_NONE;
  ASSERT_EQ(RegQueryValueExW(key, L"TZI", nullptr, &type, data, &size), 0);
  EXPECT_EQ(size, 44u);
  EXPECT_EQ(type, REG_BINARY);
  const BYTE expected[44] = {0xC4, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0xC4, 0xFF, 0xFF, 0xFF, 0, 0, 10,
                             0,    0,    0,    5,    0, 3, 0, 0, 0,    0,    0,    0,    0, 0, 0,
                             3,    0,    0,    0,    5, 0, 2, 0, 0,    0,    0,    0,    0, 0};
  EXPECT_EQ(std::vector<BYTE>(data, data + 44), std::vector<BYTE>(expected, expected + 44));
}

TEST_F(RegistryTest, NamesAreComparedWithoutRegardToCase) {
  const HKEY key = Open(
      L"software\\MICROSOFT\\windows nt\\currentversion\\time zones\\"
      L"w. europe STANDARD time");
  ASSERT_NE(key, nullptr);
  std::vector<std::uint8_t> data(44);
  EXPECT_EQ(Query(key, L"tzi", data), 0);
}

TEST_F(RegistryTest, OnlyTheLettersAToZHaveTwoCases) {
  TestRegistry::SetValue(L"Zone \u00C4", L"Z", REG_BINARY, {});
  EXPECT_TRUE(Exists(L"ZONE \u00C4"));
  EXPECT_FALSE(Exists(L"Zone \u00E4"));
}

TEST_F(RegistryTest, KeysAreOpenedStepByStep) {
  HKEY key = HKEY_LOCAL_MACHINE;
  for (const wchar_t* step :
       {L"SOFTWARE", L"Microsoft\\Windows NT", L"CurrentVersion\\", L"Time Zones", L"UTC"}) {
    key = Open(step, key);
    ASSERT_NE(key, nullptr) << m_error;
  }
  std::vector<std::uint8_t> data(44);
  EXPECT_EQ(Query(key, L"TZI", data), 0);
  const HKEY same = Open(L"", key);
  data.resize(44);
  EXPECT_EQ(Query(same, L"TZI", data), 0);
  HKEY again = nullptr;
  ASSERT_EQ(RegOpenKeyExW(key, nullptr, 0, KEY_READ, &again), 0);
  m_opened.push_back(again);
}

TEST_F(RegistryTest, UnknownKeysAndValuesAreNotFound) {
  for (const std::wstring& path :
       {std::wstring(L"SYSTEM"), kZones + L"\\No Such Zone", kBerlin + L"\\Dynamic DST",
        kZones + L" ", std::wstring(L"SOFTWARE/Microsoft"), kZones + L"\\Europe/Berlin"}) {
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(m_error, LSTATUS{ERROR_FILE_NOT_FOUND});
  }
  const HKEY key = Open(kBerlin);
  for (const wchar_t* name : {L"Display", L"", L"TZI "}) {
    std::vector<std::uint8_t> data(44);
    EXPECT_EQ(Query(key, name, data), LSTATUS{ERROR_FILE_NOT_FOUND});
  }
  std::vector<std::uint8_t> data(44);
  EXPECT_EQ(Query(key, nullptr, data), LSTATUS{ERROR_FILE_NOT_FOUND});
  EXPECT_EQ(Query(HKEY_LOCAL_MACHINE, L"TZI", data), LSTATUS{ERROR_FILE_NOT_FOUND});
}

TEST_F(RegistryTest, KeyWithASeparatorBeforeItIsABadPath) {
  EXPECT_FALSE(Exists(L"\\" + kBerlin));
  EXPECT_EQ(m_error, LSTATUS{ERROR_BAD_PATHNAME});
}

TEST_F(RegistryTest, OptionsAndOtherAccessRightsAreRefused) {
  HKEY key = nullptr;
  EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 1, KEY_READ, &key),
            LSTATUS{ERROR_INVALID_PARAMETER});
  for (const REGSAM access : {0u, 2u, 3u, 0x20006u, 0xF003Fu, 0x119u, 0x20119u, 0x20219u}) {
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, access, &key),
              LSTATUS{ERROR_INVALID_PARAMETER})
        << access;
  }
  EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, KEY_READ, nullptr),
            LSTATUS{ERROR_INVALID_PARAMETER});
  EXPECT_EQ(key, nullptr);
}

TEST_F(RegistryTest, QueryTellsTheSizeAndRefusesASmallBuffer) {
  const HKEY key = Open(kBerlin);
  DWORD size = 0;
  EXPECT_EQ(RegQueryValueExW(key, L"TZI", nullptr, nullptr, nullptr, &size), 0);
  EXPECT_EQ(size, 44u);
  BYTE data[44] = {};
  size = 43;
  EXPECT_EQ(RegQueryValueExW(key, L"TZI", nullptr, nullptr, data, &size), LSTATUS{ERROR_MORE_DATA});
  EXPECT_EQ(size, 44u);
  EXPECT_EQ(data[0], 0);
  DWORD type = REG_NONE;
  EXPECT_EQ(RegQueryValueExW(key, L"TZI", nullptr, &type, nullptr, nullptr), 0);
  EXPECT_EQ(type, REG_BINARY);
  EXPECT_EQ(RegQueryValueExW(key, L"TZI", nullptr, nullptr, data, nullptr),
            LSTATUS{ERROR_INVALID_PARAMETER});
  DWORD reserved = 0;
  size = 44;
  EXPECT_EQ(RegQueryValueExW(key, L"TZI", &reserved, nullptr, data, &size),
            LSTATUS{ERROR_INVALID_PARAMETER});
}

TEST_F(RegistryTest, ClosedAndMadeUpKeysAreInvalid) {
  HKEY key = nullptr;
  ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kBerlin.c_str(), 0, KEY_READ, &key), 0);
  EXPECT_EQ(RegCloseKey(key), 0);
  int object = 0;
  for (const HKEY bad : {key, HKEY{nullptr}, reinterpret_cast<HKEY>(&object)}) {
    HKEY opened = nullptr;
    std::vector<std::uint8_t> data(44);
    EXPECT_EQ(Query(bad, L"TZI", data), LSTATUS{ERROR_INVALID_HANDLE});
    EXPECT_EQ(RegOpenKeyExW(bad, L"x", 0, KEY_READ, &opened), LSTATUS{ERROR_INVALID_HANDLE});
    EXPECT_EQ(RegCloseKey(bad), LSTATUS{ERROR_INVALID_HANDLE});
  }
  EXPECT_EQ(RegCloseKey(HKEY_LOCAL_MACHINE), 0);
  EXPECT_TRUE(Exists(L"SOFTWARE"));
}

TEST_F(RegistryTest, LastErrorIsLeftAlone) {
  SetLastError(4711);
  const HKEY key = Open(kBerlin);
  std::vector<std::uint8_t> data(44);
  EXPECT_EQ(Query(key, L"TZI", data), 0);
  EXPECT_NE(Query(key, L"missing", data), 0);
  EXPECT_FALSE(Exists(L"missing"));
  EXPECT_EQ(GetLastError(), 4711u);
}

TEST_F(RegistryTest, TestValueReplacesTheSystemsUntilReset) {
  TestRegistry::SetValue(kBerlin, L"TZI", REG_SZ, {1, 2, 3});
  std::vector<std::uint8_t> data(44);
  EXPECT_EQ(Query(Open(kBerlin), L"TZI", data), 0);
  EXPECT_EQ(data, (std::vector<std::uint8_t>{1, 2, 3}));
  TestRegistry::Reset();
  data.resize(44);
  EXPECT_EQ(Query(Open(kBerlin), L"TZI", data), 0);
  EXPECT_EQ(data.size(), 44u);
}

TEST_F(RegistryTest, TestValueMakesItsKeyAndThoseAbove) {
  TestRegistry::SetValue(L"Hardware\\A\\B", L"", REG_DWORD, {1, 0, 0, 0});
  EXPECT_TRUE(Exists(L"HARDWARE"));
  EXPECT_TRUE(Exists(L"hardware\\a"));
  std::vector<std::uint8_t> data(4);
  EXPECT_EQ(Query(Open(L"Hardware\\A\\B"), nullptr, data), 0);
  EXPECT_EQ(data.size(), 4u);
  TestRegistry::SetValue(kZones + L"\\New Zone", L"TZI", REG_BINARY, {});
  data.assign(1, 0);
  EXPECT_EQ(Query(Open(kZones + L"\\new zone"), L"TZI", data), 0);
  EXPECT_TRUE(data.empty());
}

TEST_F(RegistryTest, RemovedValueIsNotFoundAndItsKeyStays) {
  TestRegistry::RemoveValue(kBerlin, L"TZI");
  std::vector<std::uint8_t> data(44);
  const HKEY key = Open(kBerlin);
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(Query(key, L"TZI", data), LSTATUS{ERROR_FILE_NOT_FOUND});
}

TEST_F(RegistryTest, RemovedKeyTakesEverythingBelowWithIt) {
  TestRegistry::RemoveKey(kBerlin);
  EXPECT_FALSE(Exists(kBerlin));
  EXPECT_TRUE(Exists(kZones + L"\\UTC"));
  TestRegistry::SetValue(kZones + L"\\New Zone", L"TZI", REG_BINARY, {});
  TestRegistry::RemoveKey(kZones);
  EXPECT_FALSE(Exists(kZones));
  EXPECT_FALSE(Exists(kZones + L"\\UTC"));
  EXPECT_FALSE(Exists(kZones + L"\\New Zone"));
  EXPECT_TRUE(Exists(L"SOFTWARE\\Microsoft"));
}

TEST_F(RegistryTest, KeyMadeAgainAfterItsRemovalHasOnlyItsNewValues) {
  TestRegistry::RemoveKey(kBerlin);
  TestRegistry::SetValue(kBerlin, L"Other", REG_DWORD, {0, 0, 0, 0});
  const HKEY key = Open(kBerlin);
  ASSERT_NE(key, nullptr);
  std::vector<std::uint8_t> data(44);
  EXPECT_EQ(Query(key, L"TZI", data), LSTATUS{ERROR_FILE_NOT_FOUND});
  data.resize(44);
  EXPECT_EQ(Query(key, L"Other", data), 0);
}

TEST_F(RegistryTest, OpenKeyKeepsTheValuesItWasOpenedWith) {
  const HKEY key = Open(kBerlin);
  TestRegistry::RemoveKey(kBerlin);
  std::vector<std::uint8_t> data(44);
  EXPECT_EQ(Query(key, L"TZI", data), 0);
}

}  // namespace
}  // namespace PlatformTest
