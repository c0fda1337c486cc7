#include "tests/StoreAndForward/CacheModel.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>

namespace OrloStoreAndForward {

namespace {

using Platform::TestFaults::FileCall;
using Kind = CacheOperationKind;

constexpr std::uint32_t kFileNotFound = 2;
constexpr std::uint32_t kAccessDenied = 5;

bool Faults(const CacheOperation& operation, FileCall call) {
  return operation.fault && operation.fault->call == call;
}

// Whether the listing fails that is the n-th of the operation, counted from 0.
bool FaultsListing(const CacheOperation& operation, std::int64_t n) {
  return Faults(operation, FileCall::FindFirstFileW) &&
         (operation.fault->detail < 0 || operation.fault->detail == n);
}

// Which names the scan gets to see, where any listing may break off: what it gave before stays.
class BrokenListings {
 public:
  BrokenListings(const CacheOperation& operation, const CacheModel::Listings& listings)
      : m_operation(operation), m_listings(listings) {}

  std::set<std::string> List(const std::string& directory) {
    std::set<std::string> names;
    const auto listing = m_listings.find(directory);
    if (listing == m_listings.end() || listing->second.empty()) {
      return names;
    }
    auto name = listing->second.begin();
    do {
      names.insert(*name);
    } while (!FaultsNext() && ++name != listing->second.end());
    return names;
  }

 private:
  bool FaultsNext() {
    const std::int64_t call = m_calls++;
    return m_operation.fault->detail < 0 || m_operation.fault->detail == call;
  }

  const CacheOperation& m_operation;
  const CacheModel::Listings& m_listings;
  std::int64_t m_calls = 0;
};

std::string TwoDigits(std::int64_t value) {
  std::string text = std::to_string(value);
  return text.size() < 2 ? '0' + text : text;
}

struct Names {
  std::string minute;
  std::string second;
};

Names NamesAt(std::int64_t milliseconds) {
  using namespace std::chrono;
  const sys_seconds time =
      floor<seconds>(sys_time<std::chrono::milliseconds>(std::chrono::milliseconds(milliseconds)));
  const sys_days day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  std::string year = std::to_string(static_cast<int>(date.year()));
  year.insert(0, year.size() < 4 ? 4 - year.size() : 0, '0');
  return {year + '-' + TwoDigits(static_cast<unsigned>(date.month())) + '-' +
              TwoDigits(static_cast<unsigned>(date.day())) + '-' +
              TwoDigits(clock.hours().count()) + '-' + TwoDigits(clock.minutes().count()),
          TwoDigits(clock.seconds().count())};
}

std::string NumberBytes(std::uint64_t value) {
  std::string bytes;
  for (int i = 0; i < 4; ++i) {
    bytes += static_cast<char>(value >> (8 * i) & 0xFF);
  }
  return bytes;
}

std::optional<std::uint32_t> TakeNumber(std::string_view& rest) {
  if (rest.size() < 4) {
    return std::nullopt;
  }
  std::uint32_t value = 0;
  for (int i = 3; i >= 0; --i) {
    value = value * 256 + static_cast<unsigned char>(rest[static_cast<std::size_t>(i)]);
  }
  rest.remove_prefix(4);
  return value;
}

std::optional<std::string> TakeBlock(std::string_view& rest) {
  const std::optional<std::uint32_t> length = TakeNumber(rest);
  if (!length || rest.size() < *length) {
    return std::nullopt;
  }
  std::string bytes(rest.substr(0, *length));
  rest.remove_prefix(*length);
  return bytes;
}

struct Parsed {
  std::vector<CacheModel::Event> events;
  std::int64_t blocks = 0;  // that had to be made, also that of an event without its second half
};

Parsed Parse(std::string_view rest) {
  Parsed parsed;
  for (std::uint32_t left = TakeNumber(rest).value_or(0); left > 0; --left) {
    const std::optional<std::string> head = TakeBlock(rest);
    if (!head) {
      break;
    }
    ++parsed.blocks;
    const std::optional<std::string> payload = TakeBlock(rest);
    if (!payload) {
      break;
    }
    ++parsed.blocks;
    parsed.events.push_back({*head, *payload});
  }
  return parsed;
}

bool IsListed(std::string_view name) { return name.find('.') == std::string_view::npos; }

std::string ParentOf(const std::string& path) {
  const std::size_t separator = path.find('/');
  return separator == std::string::npos ? std::string() : path.substr(0, separator);
}

}  // namespace

std::string CacheModel::AfterRead(const std::string& buffer, const std::string& bytes) const {
  return bytes.size() >= buffer.size() ? bytes : bytes + buffer.substr(bytes.size());
}

void CacheModel::Enqueue(std::deque<Entry>& queue, Entry entry) const {
  queue.push_back(std::move(entry));
}

std::string CacheModel::Stored(const std::string& bytes, const BlockSize& size) const {
  return bytes.substr(0, size.length);
}

std::uint64_t CacheModel::PaddedSize(std::uint64_t size) const {
  return (size + m_pageSize - 1) / m_pageSize * m_pageSize;
}

CacheModel::PushOutcome CacheModel::Push(const CacheOperation& operation) {
  const Names names = NamesAt(m_milliseconds);
  Entry entry{names.minute, names.second, 0, false};
  PushOutcome outcome{false, false, entry.Path()};
  bool made = false;
  if (!PrepareMinute(operation, entry.minute, made)) {
    ++m_met["push without its minute directory"];
    return outcome;
  }
  const std::string image = ImageOf(operation);
  if (StoreChunk(operation, outcome.path, image, outcome.emptied)) {
    entry.size = image.size();
    Enqueue(m_queue, std::move(entry));
    outcome.result = true;
  } else if (made && RemovesDirectoryOfFailedPush()) {
    m_tree.erase(names.minute);
    ++m_met["directory of a failed push removed"];
  }
  return outcome;
}

bool CacheModel::PrepareMinute(const CacheOperation& operation, const std::string& minute,
                               bool& made) {
  if (Faults(operation, FileCall::GetFileAttributesW)) {
    if (operation.fault->error != kFileNotFound) {
      return false;
    }
  } else if (m_tree.contains(minute)) {
    return IsDirectory(minute);
  }
  if (!IsDirectory("") || m_tree.contains(minute) ||
      Faults(operation, FileCall::CreateDirectoryW) || m_readOnly) {
    return false;
  }
  m_tree[minute] = std::nullopt;
  made = true;
  return true;
}

std::string CacheModel::ImageOf(const CacheOperation& operation) const {
  const auto tag = static_cast<std::uint64_t>(operation.numbers[0]);
  std::string image = NumberBytes(operation.events.size());
  std::size_t part = 0;
  for (const EventSize& event : operation.events) {
    for (const BlockSize& block : {event.head, event.payload.value_or(BlockSize{})}) {
      image += NumberBytes(block.length);
      image += Stored(ModelBytes(tag, part++, block.read + block.length), block);
    }
  }
  image.resize(PaddedSize(image.size()), '\0');
  return image;
}

bool CacheModel::StoreChunk(const CacheOperation& operation, const std::string& path,
                            const std::string& image, bool& emptied) {
  if (m_refusesRoom) {
    ++m_met["push without room"];
    return false;
  }
  m_reserved += image.size();
  if (!GrowBuffer(image.size())) {
    m_released += image.size();
    ++m_met["push without memory"];
    return false;
  }
  emptied = true;
  m_buffer = image.size() >= m_buffer.size() ? image : image + m_buffer.substr(image.size());
  const auto existing = m_tree.find(path);
  const bool isDirectory = existing != m_tree.end() && !existing->second;
  if (isDirectory || Faults(operation, FileCall::CreateFileW) || m_readOnly) {
    m_released += KeepsRoomOfLostChunk() ? 0 : image.size();
    ++m_met["push without a file"];
    return false;
  }
  std::size_t written = image.size();
  if (Faults(operation, FileCall::WriteFile) && operation.fault->detail >= 0) {
    written = std::min(written, static_cast<std::size_t>(operation.fault->detail));
    ++m_met["push written short"];
  }
  ++m_met[existing != m_tree.end() ? "push over another chunk" : "push"];
  m_tree[path] = image.substr(0, written);
  return true;
}

bool CacheModel::GrowBuffer(std::uint64_t size) {
  if (m_room && size <= *m_room) {
    return true;
  }
  if (m_refusesMemory) {
    return false;
  }
  m_room = size;
  return true;
}

CacheModel::FrontOutcome CacheModel::Front(const CacheOperation& operation) {
  const Entry& entry = m_queue.front();
  const std::string path = entry.Path();
  if (Faults(operation, FileCall::CreateFileW) || !IsFile(path)) {
    ++m_met["front without its file"];
    return {};
  }
  if (!GrowBuffer((entry.size + m_pageSize - 1) / m_pageSize * m_pageSize)) {
    ++m_met["front without memory"];
    return {};
  }
  if (Faults(operation, FileCall::ReadFile)) {
    ++m_met["front that can't read"];
    return {};
  }
  const std::string bytes = m_tree.at(path)->substr(0, entry.size);
  m_buffer = AfterRead(m_buffer, bytes);
  Parsed parsed = Parse(m_buffer);
  if (operation.blocks && *operation.blocks < parsed.blocks) {
    ++m_met["front without memory for a block"];
    return {};
  }
  ++m_met[bytes.size() < entry.size ? "front of a short file" : "front"];
  return {true, std::move(parsed.events)};
}

void CacheModel::Pop(const CacheOperation& operation) {
  const Entry entry = m_queue.front();
  m_queue.pop_front();
  ++m_met[IsFile(entry.Path()) ? "pop" : "pop without its file"];
  if (IsFile(entry.Path()) && !Faults(operation, FileCall::Unlink) && !m_readOnly) {
    m_tree.erase(entry.Path());
  }
  m_released += SizeReleased(entry);
  if (IsDirectory(entry.minute) && !HasChildren(entry.minute) && !m_readOnly &&
      !FaultsListing(operation, 0) && !Faults(operation, FileCall::FindNextFileW) &&
      !Faults(operation, FileCall::RemoveDirectoryW)) {
    m_tree.erase(entry.minute);
    ++m_met["directory of the last chunk removed"];
  }
}

std::uint32_t CacheModel::Restart(const CacheOperation& operation, const Listings& listings) {
  if (Faults(operation, FileCall::GetFileAttributesW)) {
    ++m_met["creation that fails"];
    return operation.fault->error;
  }
  if (!IsDirectory("")) {
    const bool faults = Faults(operation, FileCall::CreateDirectoryW);
    if (faults || m_readOnly) {
      ++m_met["creation that fails"];
      return faults ? operation.fault->error : kAccessDenied;
    }
    m_tree[""] = std::nullopt;
  }
  m_buffer.clear();
  m_room.reset();
  m_queue.clear();
  Scan(operation, listings);
  ++m_met[m_queue.empty() ? "restart with nothing" : "restart with chunks"];
  if (Faults(operation, FileCall::FindNextFileW) && !m_queue.empty()) {
    ++m_met["restart with a listing that breaks off"];
  }
  return 0;
}

void CacheModel::Scan(const CacheOperation& operation, const Listings& listings) {
  const bool breaksOff = Faults(operation, FileCall::FindNextFileW);
  BrokenListings broken(operation, listings);
  const auto listNames = [&](const std::string& directory) {
    return breaksOff ? broken.List(directory) : std::set<std::string>();
  };
  const auto isSeen = [&](const std::set<std::string>& names, const std::string& name) {
    return IsListed(name) && (!breaksOff || names.contains(name));
  };
  std::int64_t listing = -1;
  const auto cannotList = [&] { return FaultsListing(operation, ++listing); };
  if (cannotList()) {
    return;
  }
  const std::set<std::string> minutes = listNames("");
  for (const auto& [minute, bytes] : m_tree) {
    const bool isName = !minute.empty() && minute.find('/') == std::string::npos;
    if (!isName || !isSeen(minutes, minute) || cannotList() || bytes) {
      continue;
    }
    const std::string prefix = minute + '/';
    const std::set<std::string> chunks = listNames(minute);
    for (auto child = m_tree.lower_bound(prefix);
         child != m_tree.end() && child->first.starts_with(prefix); ++child) {
      std::string name = child->first.substr(prefix.size());
      if (isSeen(chunks, name)) {
        Enqueue(m_queue,
                {minute, std::move(name), child->second ? child->second->size() : 0, true});
      }
    }
  }
}

bool CacheModel::IsPossible(const CacheOperation& operation) const {
  switch (operation.kind) {
    case Kind::Front:
    case Kind::Pop:
      return !m_queue.empty();
    case Kind::Delete:
    case Kind::Resize:
    case Kind::Damage:
      return FileMeant(operation).has_value();
    case Kind::Stray:
    case Kind::MakeDirectory:
      return !m_tree.contains(operation.path) && !IsFile(ParentOf(operation.path));
    default:
      return true;
  }
}

void CacheModel::Change(const CacheOperation& operation) {
  const auto number = [&](std::size_t i) { return operation.numbers[i]; };
  const std::optional<std::string> file = FileMeant(operation);
  switch (operation.kind) {
    case Kind::Clock:
      m_milliseconds = number(0);
      break;
    case Kind::RefuseRoom:
      m_refusesRoom = number(0) != 0;
      break;
    case Kind::RefuseMemory:
      m_refusesMemory = number(0) != 0;
      break;
    case Kind::ReadOnly:
      m_readOnly = number(0) != 0;
      break;
    case Kind::Delete:
      m_tree.erase(*file);
      break;
    case Kind::Resize:
      m_tree[*file]->resize(static_cast<std::size_t>(number(1)), '\0');
      break;
    case Kind::Damage:
      if (std::string& bytes = *m_tree[*file]; !bytes.empty()) {
        bytes[static_cast<std::size_t>(number(1)) % bytes.size()] = static_cast<char>(number(2));
      }
      break;
    case Kind::Stray:
    case Kind::MakeDirectory:
      m_tree[""] = std::nullopt;
      m_tree[ParentOf(operation.path)] = std::nullopt;
      m_tree[operation.path] = std::nullopt;
      if (operation.kind == Kind::Stray) {
        const auto size = static_cast<std::size_t>(number(0));
        m_tree[operation.path] = ModelBytes(size, 0, size);
      }
      break;
    case Kind::Vanish:
      m_tree.clear();
      break;
    default:
      break;
  }
}

std::optional<std::string> CacheModel::FileMeant(const CacheOperation& operation) const {
  if (operation.kind != Kind::Delete && operation.kind != Kind::Resize &&
      operation.kind != Kind::Damage) {
    return std::nullopt;
  }
  std::vector<std::string> files;
  for (const auto& [path, bytes] : m_tree) {
    if (bytes) {
      files.push_back(path);
    }
  }
  if (files.empty()) {
    return std::nullopt;
  }
  return files[static_cast<std::size_t>(operation.numbers[0]) % files.size()];
}

bool CacheModel::IsFile(const std::string& path) const {
  const auto found = m_tree.find(path);
  return found != m_tree.end() && found->second.has_value();
}

bool CacheModel::IsDirectory(const std::string& path) const {
  const auto found = m_tree.find(path);
  return found != m_tree.end() && !found->second;
}

bool CacheModel::HasChildren(const std::string& directory) const {
  const std::string prefix = directory + '/';
  const auto child = m_tree.lower_bound(prefix);
  return child != m_tree.end() && child->first.starts_with(prefix);
}

}  // namespace OrloStoreAndForward
