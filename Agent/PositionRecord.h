#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "Agent/InputFile.h"

namespace OrloAgent {

// The beginning of a file's content, by which a file is known again: how many bytes, at most 256,
// and a checksum of them in 48 bits.
class Fingerprint {
 public:
  static constexpr std::size_t kLongest = 256;

  Fingerprint() = default;
  // Of the file's first `length` bytes, or of what there is of them.
  static Fingerprint Take(const InputFile& file, std::size_t length = kLongest);
  static Fingerprint FromWord(std::uint64_t word) { return Fingerprint(word); }

  std::uint64_t ToWord() const { return m_word; }
  std::size_t GetLength() const { return static_cast<std::size_t>(m_word >> 48); }

  // Whether the file still begins with these bytes.
  bool Fits(const InputFile& file) const;

  bool operator==(const Fingerprint&) const = default;

 private:
  explicit Fingerprint(std::uint64_t word) : m_word(word) {}

  std::uint64_t m_word = 0;
};

// How far one followed file has been read, in a file of its own that is mapped into memory: keeping
// a position costs no call of the system, and what was kept survives the end of the process,
// however it ends.
//
//   offset  size  field, little-endian
//   0       8     "OrloPos1"
//   8       8     position: bytes of the followed file that were posted
//   16      8     fingerprint: length in the upper 16 bits, checksum in the lower 48
//   24      4     length of the path
//   28      n     path of the followed file, UTF-8, when the record was made
//
// One thread.
class PositionRecord {
 public:
  // Makes or replaces the record. Throws std::exception if the system does not let us.
  static PositionRecord Create(const std::filesystem::path& directory, const FileId& id,
                               const std::filesystem::path& followed, std::uint64_t position);

  // Nothing if there is none, or it is damaged.
  static std::optional<PositionRecord> Load(const std::filesystem::path& record);

  PositionRecord(PositionRecord&&) noexcept;
  PositionRecord& operator=(PositionRecord&&) noexcept;
  ~PositionRecord();

  // Where the record of the file with that identity is.
  static std::filesystem::path GetPath(const std::filesystem::path& directory, const FileId& id);
  // The identity in a record's name; nothing if it is no such name.
  static std::optional<FileId> GetId(const std::filesystem::path& record);

  const std::filesystem::path& GetFollowed() const;
  std::uint64_t GetPosition() const;
  Fingerprint GetFingerprint() const;
  void SetPosition(std::uint64_t position);
  void SetFingerprint(const Fingerprint& fingerprint);

  // The followed file is of no more interest. The object is of no use afterwards.
  void Remove();

 private:
  struct Mapping;
  explicit PositionRecord(std::unique_ptr<Mapping> mapping);

  std::unique_ptr<Mapping> m_mapping;
};

}  // namespace OrloAgent
