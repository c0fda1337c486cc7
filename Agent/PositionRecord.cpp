#include "Agent/PositionRecord.h"

#include <array>
#include <atomic>
#include <bit>
#include <boost/interprocess/file_mapping.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <charconv>
#include <cstring>
#include <fstream>

#include "Agent/PathText.h"

namespace OrloAgent {

// The record is read and written in the machine's order.
static_assert(std::endian::native == std::endian::little);

namespace {

constexpr char kMagic[] = "OrloPos1";
constexpr std::size_t kPosition = 8;
constexpr std::size_t kFingerprint = 16;
constexpr std::size_t kPathLength = 24;
constexpr std::size_t kPath = 28;

// FNV-1a: here nobody gains by a collision.
std::uint64_t Checksum(const char* bytes, std::size_t size) {
  std::uint64_t sum = 0xcbf29ce484222325u;
  for (std::size_t i = 0; i < size; ++i) {
    sum = (sum ^ static_cast<unsigned char>(bytes[i])) * 0x100000001b3u;
  }
  return sum;
}

std::string ToHex(std::uint64_t number) {
  std::array<char, 16> digits;
  char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr;
  return {digits.data(), end};
}

bool FromHex(std::string_view text, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, 16);
  return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

}  // namespace

Fingerprint Fingerprint::Take(const InputFile& file, std::size_t length) {
  std::array<char, kLongest> bytes{};
  std::size_t size = 0;
  while (size < std::min(length, kLongest)) {
    const auto count = file.Read(size, bytes.data() + size, std::min(length, kLongest) - size);
    if (!count || *count == 0) {
      break;
    }
    size += *count;
  }
  constexpr std::uint64_t kSumMask = (std::uint64_t{1} << 48) - 1;
  return Fingerprint(std::uint64_t{size} << 48 | (Checksum(bytes.data(), size) & kSumMask));
}

bool Fingerprint::Fits(const InputFile& file) const {
  return GetLength() == 0 || Take(file, GetLength()) == *this;
}

struct PositionRecord::Mapping {
  std::filesystem::path record;
  std::filesystem::path followed;
  boost::interprocess::mapped_region region;

  std::atomic_ref<std::uint64_t> At(std::size_t offset) {
    return std::atomic_ref<std::uint64_t>(
        *reinterpret_cast<std::uint64_t*>(static_cast<char*>(region.get_address()) + offset));
  }
};

PositionRecord::PositionRecord(std::unique_ptr<Mapping> mapping) : m_mapping(std::move(mapping)) {}
PositionRecord::PositionRecord(PositionRecord&&) noexcept = default;
PositionRecord& PositionRecord::operator=(PositionRecord&&) noexcept = default;
PositionRecord::~PositionRecord() = default;

std::filesystem::path PositionRecord::GetPath(const std::filesystem::path& directory,
                                              const FileId& id) {
  return directory / (ToHex(id.device) + "-" + ToHex(id.index));
}

std::optional<FileId> PositionRecord::GetId(const std::filesystem::path& record) {
  const std::string name = record.filename().string();
  const std::size_t hyphen = name.find('-');
  FileId id;
  if (hyphen == name.npos || !FromHex(std::string_view(name).substr(0, hyphen), id.device) ||
      !FromHex(std::string_view(name).substr(hyphen + 1), id.index)) {
    return std::nullopt;
  }
  return id;
}

PositionRecord PositionRecord::Create(const std::filesystem::path& directory, const FileId& id,
                                      const std::filesystem::path& followed,
                                      std::uint64_t position) {
  std::filesystem::create_directories(directory);
  const std::filesystem::path record = GetPath(directory, id);
  std::filesystem::path unfinished = record;
  unfinished += ".new";
  const std::string path = ToText(followed);
  std::string bytes(kPath, '\0');
  std::memcpy(bytes.data(), kMagic, sizeof kMagic - 1);
  std::memcpy(bytes.data() + kPosition, &position, sizeof position);
  const auto length = static_cast<std::uint32_t>(path.size());
  std::memcpy(bytes.data() + kPathLength, &length, sizeof length);
  bytes += path;
  {
    std::ofstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(unfinished, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
  }
  std::filesystem::rename(unfinished, record);
  auto made = Load(record);
  if (!made) {
    throw std::runtime_error("it can't be read back");
  }
  return std::move(*made);
}

std::optional<PositionRecord> PositionRecord::Load(const std::filesystem::path& record) {
  try {
    const boost::interprocess::file_mapping file(record.string().c_str(),
                                                 boost::interprocess::read_write);
    auto mapping = std::make_unique<Mapping>();
    mapping->region = boost::interprocess::mapped_region(file, boost::interprocess::read_write);
    const char* const bytes = static_cast<const char*>(mapping->region.get_address());
    const std::size_t size = mapping->region.get_size();
    std::uint32_t length = 0;
    if (size < kPath || std::memcmp(bytes, kMagic, sizeof kMagic - 1) != 0) {
      return std::nullopt;
    }
    std::memcpy(&length, bytes + kPathLength, sizeof length);
    if (size - kPath != length) {
      return std::nullopt;
    }
    mapping->record = record;
    mapping->followed = ToPath(std::string(bytes + kPath, length));
    return PositionRecord(std::move(mapping));
  } catch (const boost::interprocess::interprocess_exception&) {
    return std::nullopt;
  }
}

const std::filesystem::path& PositionRecord::GetFollowed() const { return m_mapping->followed; }

std::uint64_t PositionRecord::GetPosition() const { return m_mapping->At(kPosition).load(); }

Fingerprint PositionRecord::GetFingerprint() const {
  return Fingerprint::FromWord(m_mapping->At(kFingerprint).load());
}

void PositionRecord::SetPosition(std::uint64_t position) {
  m_mapping->At(kPosition).store(position, std::memory_order_relaxed);
}

void PositionRecord::SetFingerprint(const Fingerprint& fingerprint) {
  m_mapping->At(kFingerprint).store(fingerprint.ToWord(), std::memory_order_relaxed);
}

void PositionRecord::Remove() {
  const std::filesystem::path record = m_mapping->record;
  // Windows does not remove a file that is mapped.
  m_mapping.reset();
  std::error_code ignored;
  std::filesystem::remove(record, ignored);
}

}  // namespace OrloAgent
