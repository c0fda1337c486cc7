#pragma once

// The grid of calls whose results on Windows and over POSIX are compared.
//
// The same sources are built twice: as a program for Windows, which writes the record that is kept
// beside these files, and into the test on Linux, which makes the same calls of Platform/Windows.h
// and compares. A result is text: success or failure, the last error, and what the call produced or
// left behind. The last error of a call that succeeds is recorded for CreateFileW alone: Windows
// leaves it as it was in most of the others, the layer over POSIX sets it to 0.

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Platform/Windows.h"

namespace Differential {

struct Line {
  std::string name;  // of the case; unique, begins with the name of its group and a blank
  std::string result;
};

using Record = std::vector<Line>;

struct Zone {
  std::string name;
  std::array<std::uint8_t, 44> record;
};

// A directory of which every case takes a part of its own.
struct Place {
  std::filesystem::path path;
  std::wstring widePath;  // the same place, with '\' between its parts

  Place operator/(const std::string& name) const;
};

// Each records one group. The place must be an empty directory.
void RecordCreate(const Place& place, Record& record);
void RecordShare(const Place& place, Record& record);
void RecordSpelling(const Place& place, Record& record);
void RecordNames(const Place& place, Record& record);
void RecordTransfer(const Place& place, Record& record);
void RecordHandles(const Place& place, Record& record);
void RecordDirectories(const Place& place, Record& record);
void RecordListing(const Place& place, Record& record);
void RecordCalendar(Record& record);
void RecordRules(Record& record);
void RecordText(Record& record);

// Of a given zone: its conversions, and what the registry answers to its name.
void RecordConversions(const Zone& zone, Record& record);
void RecordRegistryOf(const Zone& zone, Record& record);
// Calls on the registry as such.
void RecordRegistry(Record& record);

// ---- Parts of the cases ------------------------------------------------------------------------

// The last error before every call, to see who has set it.
constexpr DWORD kStale = 0xDEAD;

// What a path can lead to.
enum class State {
  Missing,
  File,
  EmptyFile,
  ReadOnlyFile,
  Directory,
  FullDirectory,
  MissingParent,
  FileAsParent
};
constexpr State kStates[] = {State::Missing,       State::File,        State::EmptyFile,
                             State::ReadOnlyFile,  State::Directory,   State::FullDirectory,
                             State::MissingParent, State::FileAsParent};
std::string NameOf(State state);

// Makes a directory in `place` that no other case has, with the path "object" in the given state.
// Returns the place of the object.
Place MakeState(const Place& place, State state);
// An empty directory that no other case has.
Place MakeScene(const Place& place);
void WriteTextFile(const std::filesystem::path& path, const std::string& content);

// "missing", "directory", or "file" with its size and whether it is read-only.
std::string Leftover(const std::filesystem::path& path);

// "ok", or "failed" with the error.
std::string Outcome(bool bSucceeded, DWORD error);
std::string Hex(const void* bytes, std::size_t size);
// UTF-16 units, also where wchar_t holds whole characters. ASCII stays as it is.
std::string Escaped(std::wstring_view text);
std::string TextOf(const SYSTEMTIME& time);

}  // namespace Differential
