#include <cerrno>

#include "tests/Platform/differential/Record.h"

namespace Differential {

namespace {

struct Call {
  const char* name;
  std::string (*make)(const std::wstring& path);
};

std::string OpenWith(const std::wstring& path, DWORD access, DWORD disposition) {
  SetLastError(kStale);
  const HANDLE handle =
      CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                  nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  std::string text = Outcome(handle != INVALID_HANDLE_VALUE, GetLastError());
  if (handle != INVALID_HANDLE_VALUE) {
    CloseHandle(handle);
  }
  return text;
}

std::string OpenExisting(const std::wstring& path) {
  return OpenWith(path, GENERIC_READ, OPEN_EXISTING);
}

std::string CreateAlways(const std::wstring& path) {
  return OpenWith(path, GENERIC_WRITE, CREATE_ALWAYS);
}

std::string MakeDirectory(const std::wstring& path) {
  SetLastError(kStale);
  const bool bMade = CreateDirectoryW(path.c_str(), nullptr) != FALSE;
  return Outcome(bMade, GetLastError());
}

std::string RemoveDirectory(const std::wstring& path) {
  SetLastError(kStale);
  const bool bRemoved = RemoveDirectoryW(path.c_str()) != FALSE;
  return Outcome(bRemoved, GetLastError());
}

// Told apart: a directory, read-only or neither. "raw" below has every bit.
std::string Attributes(const std::wstring& path) {
  SetLastError(kStale);
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    return Outcome(false, GetLastError());
  }
  return std::string("ok") + ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? " directory" : "") +
         ((attributes & FILE_ATTRIBUTE_READONLY) != 0 ? " readonly" : "");
}

std::string Delete(const std::wstring& path) {
  SetLastError(kStale);
  errno = 0;
  if (_wunlink(path.c_str()) == 0) {
    return "ok";
  }
  return "failed " + std::to_string(GetLastError()) + " errno " + std::to_string(errno);
}

std::string FindName(const std::wstring& path) {
  WIN32_FIND_DATAW data;
  SetLastError(kStale);
  const HANDLE handle = FindFirstFileW(path.c_str(), &data);
  if (handle == INVALID_HANDLE_VALUE) {
    return Outcome(false, GetLastError());
  }
  FindClose(handle);
  return "ok " + Escaped(data.cFileName);
}

constexpr Call kCalls[] = {{"open", OpenExisting},     {"create", CreateAlways},
                           {"mkdir", MakeDirectory},   {"rmdir", RemoveDirectory},
                           {"attributes", Attributes}, {"unlink", Delete},
                           {"find", FindName}};

// The calls, by their place above, that make and remove a file and then a directory of a name.
constexpr int kLifeOfAName[] = {0, 1, 4, 6, 5, 2, 4, 3};

// Other ways to write the path of an object in a scene: the path of the scene, then the rest.
struct Spelling {
  const char* name;
  std::wstring (*write)(const std::wstring& scene, const std::wstring& rest);
};

std::wstring Replaced(std::wstring text, wchar_t from, wchar_t to) {
  for (wchar_t& unit : text) {
    unit = unit == from ? to : unit;
  }
  return text;
}

constexpr Spelling kSpellings[] = {
    {"plain", [](const std::wstring& s, const std::wstring& r) { return s + L"\\" + r; }},
    {"slash", [](const std::wstring& s, const std::wstring& r) { return s + L"/" + r; }},
    {"all-slashes", [](const std::wstring& s,
                       const std::wstring& r) { return Replaced(s + L"/" + r, L'\\', L'/'); }},
    {"doubled", [](const std::wstring& s, const std::wstring& r) { return s + L"\\\\" + r; }},
    {"mixed-doubled", [](const std::wstring& s, const std::wstring& r) { return s + L"/\\/" + r; }},
    {"trailing",
     [](const std::wstring& s, const std::wstring& r) { return s + L"\\" + r + L"\\"; }},
    {"trailing-slash",
     [](const std::wstring& s, const std::wstring& r) { return s + L"\\" + r + L"/"; }},
    {"trailing-doubled",
     [](const std::wstring& s, const std::wstring& r) { return s + L"\\" + r + L"\\\\"; }},
    {"dot", [](const std::wstring& s, const std::wstring& r) { return s + L"\\.\\" + r; }},
    {"dot-at-the-end",
     [](const std::wstring& s, const std::wstring& r) { return s + L"\\" + r + L"\\."; }},
    {"up-and-down",
     [](const std::wstring& s, const std::wstring& r) { return s + L"\\up\\..\\" + r; }},
    {"up-from-missing",
     [](const std::wstring& s, const std::wstring& r) { return s + L"\\gone\\..\\" + r; }},
    {"upper-case",
     [](const std::wstring& s, const std::wstring& r) {
       std::wstring upper = r;
       for (wchar_t& unit : upper) {
         unit = unit >= L'a' && unit <= L'z' ? static_cast<wchar_t>(unit - L'a' + L'A') : unit;
       }
       return s + L"\\" + upper;
     }},
};

}  // namespace

void RecordSpelling(const Place& place, Record& record) {
  for (const Spelling& spelling : kSpellings) {
    for (const State state : kStates) {
      for (const Call& call : kCalls) {
        const Place object = MakeState(place, state);
        const bool bBelow = state == State::MissingParent || state == State::FileAsParent;
        const std::wstring rest = bBelow ? L"object\\below" : L"object";
        const std::wstring scene =
            object.widePath.substr(0, object.widePath.size() - rest.size() - 1);
        const auto scenePath =
            bBelow ? object.path.parent_path().parent_path() : object.path.parent_path();
        std::filesystem::create_directory(scenePath / "up");
        std::string result = call.make(spelling.write(scene, rest));
        record.push_back(
            {"spelling " + std::string(spelling.name) + " " + NameOf(state) + " " + call.name,
             result + ", then " + Leftover(object.path)});
      }
    }
  }
}

void RecordNames(const Place& place, Record& record) {
  struct {
    const char* name;
    std::wstring text;
  } const names[] = {
      {"dot-behind", L"name."},
      {"dots-behind", L"name..."},
      {"blank-behind", L"name "},
      {"blank-before", L" name"},
      {"dots", L"..."},
      {"inner-dots", L"a..b"},
      {"dot-before", L".name"},
      {"less", L"a<b"},
      {"greater", L"a>b"},
      {"colon", L"a:b"},
      {"quote", L"a\"b"},
      {"bar", L"a|b"},
      {"question", L"a?b"},
      {"asterisk", L"a*b"},
      {"tab", L"a\tb"},
      {"one", std::wstring(L"a") + wchar_t{1} + L"b"},
      {"device-nul", L"NUL"},
      {"device-with-ending", L"nul.txt"},
      {"device-com", L"COM1"},
      {"umlaut", L"\u00e4\u00f6\u00fc"},
      {"cyrillic", L"\u0436\u0443\u043a"},
      {"outside-the-bmp", std::wstring({wchar_t{0xD83D}, wchar_t{0xDE00}})},
      {"lone-high-surrogate", std::wstring({L'a', wchar_t{0xD83D}, L'b'})},
      {"lone-low-surrogate", std::wstring({L'a', wchar_t{0xDE00}, L'b'})},
      {"braces", L"{4f2d}"},
      {"percent", L"100%"},
      {"length-200", std::wstring(200, L'n')},
      {"length-255", std::wstring(255, L'n')},
      {"length-256", std::wstring(256, L'n')},
      {"length-1000", std::wstring(1000, L'n')},
      {"umlauts-127", std::wstring(127, wchar_t{0xE4})},
      {"umlauts-128", std::wstring(128, wchar_t{0xE4})},
  };
  for (const auto& name : names) {
    const Place scene = MakeScene(place);
    const std::wstring path = scene.widePath + L"\\" + name.text;
    std::string result;
    for (const int index : kLifeOfAName) {
      const Call& call = kCalls[index];
      result += std::string(call.name) + " " + call.make(path) + ", ";
    }
    record.push_back({"names " + std::string(name.name), result});
  }
  for (const Call& call : kCalls) {
    record.push_back({"names empty " + std::string(call.name), call.make(L"")});
  }
  // Paths around the length that older calls could take.
  std::wstring path = MakeScene(place).widePath;
  for (int depth = 1; depth <= 8; ++depth) {
    path += L"\\" + std::wstring(60, L'd');
    std::string result = "mkdir " + MakeDirectory(path);
    result += ", attributes " + Attributes(path);
    result += ", create " + CreateAlways(path + L"\\file");
    result += ", unlink " + Delete(path + L"\\file");
    record.push_back({"names depth " + std::to_string(depth), result});
  }
}

void RecordDirectories(const Place& place, Record& record) {
  for (const State state : kStates) {
    const Place object = MakeState(place, state);
    SetLastError(kStale);
    const DWORD attributes = GetFileAttributesW(object.widePath.c_str());
    record.push_back({"directories raw-attributes " + NameOf(state),
                      attributes == INVALID_FILE_ATTRIBUTES ? Outcome(false, GetLastError())
                                                            : "ok " + std::to_string(attributes)});
    for (const Call& first : kCalls) {
      for (const Call& second : kCalls) {
        const Place twice = MakeState(place, state);
        std::string result = first.make(twice.widePath);
        result += ", " + second.make(twice.widePath);
        record.push_back(
            {"directories " + NameOf(state) + " " + first.name + " then " + second.name,
             result + ", then " + Leftover(twice.path)});
      }
    }
  }
}

}  // namespace Differential
