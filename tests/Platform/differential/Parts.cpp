#include <fstream>
#include <stdexcept>

#include "tests/Platform/differential/Record.h"

namespace Differential {

namespace fs = std::filesystem;

namespace {

constexpr char kDigits[] = "0123456789abcdef";

void AppendUnit(std::string& text, std::uint32_t unit) {
  if (unit >= 0x20 && unit < 0x7F && unit != '\\') {
    text.push_back(static_cast<char>(unit));
    return;
  }
  text += "\\u";
  for (int shift = 12; shift >= 0; shift -= 4) {
    text.push_back(kDigits[unit >> shift & 15]);
  }
}

std::string TwoDigits(unsigned value) { return (value < 10 ? "0" : "") + std::to_string(value); }

}  // namespace

Place Place::operator/(const std::string& name) const {
  return {path / name, widePath + L"\\" + std::wstring(name.begin(), name.end())};
}

std::string NameOf(State state) {
  constexpr const char* kNames[] = {"missing",        "file",          "empty-file",
                                    "readonly-file",  "directory",     "full-directory",
                                    "missing-parent", "file-as-parent"};
  return kNames[static_cast<int>(state)];
}

void WriteTextFile(const fs::path& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary);
  file << content;
  if (!file.flush()) {
    throw std::runtime_error("can't write " + path.string());
  }
}

Place MakeScene(const Place& place) {
  static int number = 0;
  Place scene = place / ("s" + std::to_string(++number));
  fs::create_directory(scene.path);
  return scene;
}

Place MakeState(const Place& place, State state) {
  Place object = MakeScene(place) / "object";
  switch (state) {
    case State::Missing:
      break;
    case State::File:
      WriteTextFile(object.path, "0123456789");
      break;
    case State::EmptyFile:
      WriteTextFile(object.path, "");
      break;
    case State::ReadOnlyFile:
      WriteTextFile(object.path, "0123456789");
      fs::permissions(object.path,
                      fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                      fs::perm_options::remove);
      break;
    case State::Directory:
      fs::create_directory(object.path);
      break;
    case State::FullDirectory:
      fs::create_directory(object.path);
      WriteTextFile(object.path / "inside", "x");
      break;
    case State::MissingParent:
      return object / "below";
    case State::FileAsParent:
      WriteTextFile(object.path, "0123456789");
      return object / "below";
  }
  return object;
}

std::string Leftover(const fs::path& path) {
  std::error_code ignored;
  const fs::file_status status = fs::status(path, ignored);
  if (fs::is_directory(status)) {
    return "directory";
  }
  if (!fs::is_regular_file(status)) {
    return "missing";
  }
  const bool bWritable = (status.permissions() & fs::perms::owner_write) != fs::perms::none;
  return "file:" + std::to_string(fs::file_size(path)) + (bWritable ? "" : ":readonly");
}

std::string Outcome(bool bSucceeded, DWORD error) {
  return bSucceeded ? "ok" : "failed " + std::to_string(error);
}

std::string Hex(const void* bytes, std::size_t size) {
  std::string text;
  for (std::size_t index = 0; index < size; ++index) {
    const unsigned value = static_cast<const unsigned char*>(bytes)[index];
    text.push_back(kDigits[value >> 4]);
    text.push_back(kDigits[value & 15]);
  }
  return text;
}

std::string Escaped(std::wstring_view text) {
  std::string escaped;
  for (const wchar_t unit : text) {
    const auto value = static_cast<std::uint32_t>(unit);
    if (value > 0xFFFF) {
      AppendUnit(escaped, 0xD800 + ((value - 0x10000) >> 10));
      AppendUnit(escaped, 0xDC00 + ((value - 0x10000) & 0x3FF));
    } else {
      AppendUnit(escaped, value);
    }
  }
  return escaped;
}

std::string TextOf(const SYSTEMTIME& time) {
  return std::to_string(time.wYear) + "-" + TwoDigits(time.wMonth) + "-" + TwoDigits(time.wDay) +
         "(" + std::to_string(time.wDayOfWeek) + ")" + TwoDigits(time.wHour) + ":" +
         TwoDigits(time.wMinute) + ":" + TwoDigits(time.wSecond) + "." +
         std::to_string(time.wMilliseconds);
}

}  // namespace Differential
