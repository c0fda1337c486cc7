#include "tests/StoreAndForward/CacheModelRunner.h"

#include <ace/Message_Block.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "Platform/Windows.h"
#include "Platform/testing/TestClock.h"
#include "Platform/testing/TestFaults.h"
#include "StoreAndForward/ChunkBuffer.h"
#include "StoreAndForward/EventCache.h"
#include "WindowsAgentCommon/DiskManager.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "WindowsAgentCommon/MessageBlocks.h"
#include "WindowsAgentCommon/Services.h"
#include "tests/StoreAndForward/DirectoryListing.h"
#include "tests/support/CountingAllocators.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloStoreAndForward {

namespace {

namespace TestFaults = Platform::TestFaults;
using Kind = CacheOperationKind;
using TestFaults::FileCall;
using WindowsAgentCommon::IDiskManager;

// Adds up what it is asked and told; a run is too long to remember every call.
class AddingDisk : public IDiskManager {
 public:
  explicit AddingDisk(std::wstring directory) : m_directory(std::move(directory)) {}
  const std::wstring& GetDataDirectory() override { return m_directory; }
  bool ReserveSpace(unsigned first, std::uint64_t bytes) override {
    m_firstIsZero = m_firstIsZero && first == 0;
    m_reserved += m_refuses ? 0 : bytes;
    return !m_refuses;
  }
  void ReleaseSpace(unsigned first, std::uint64_t bytes) override {
    m_firstIsZero = m_firstIsZero && first == 0;
    m_released += bytes;
  }

  bool m_refuses = false;
  bool m_firstIsZero = true;
  std::uint64_t m_reserved = 0;
  std::uint64_t m_released = 0;

 private:
  const std::wstring m_directory;
};

using TreeSizes = std::map<std::string, std::optional<std::uint64_t>>;

TreeSizes SizesOf(const CacheModel::Tree& tree) {
  TreeSizes sizes;
  for (const auto& [path, bytes] : tree) {
    sizes.emplace(path, bytes ? std::optional<std::uint64_t>(bytes->size()) : std::nullopt);
  }
  return sizes;
}

std::string Describe(const TreeSizes& tree) {
  std::ostringstream text;
  for (const auto& [path, size] : tree) {
    text << "\n    \"" << path << "\" " << (size ? std::to_string(*size) : "directory");
  }
  return text.str();
}

std::string ReadBytes(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

ACE_Message_Block* MakeBlock(const std::string& bytes, std::uint32_t read) {
  ACE_Message_Block* block = nullptr;
  if (WindowsAgentCommon::CreateDataMessageBlock(bytes.size(), block) != 0) {
    throw std::bad_alloc();
  }
  block->copy(bytes.data(), bytes.size());
  block->rd_ptr(read);
  return block;
}

std::string UnreadBytes(const ACE_Message_Block& block) {
  return std::string(block.rd_ptr(), block.length());
}

bool IsRebuilt(const ACE_Message_Block* block, const std::string& bytes, bool hasContinuation) {
  return block != nullptr && UnreadBytes(*block) == bytes && block->rd_ptr() == block->base() &&
         block->size() == bytes.size() && block->msg_type() == ACE_Message_Block::MB_DATA &&
         (block->cont() != nullptr) == hasContinuation;
}

void* RefuseMemory(void*, std::size_t) { return nullptr; }

// What the system lists of the cache directory and of each directory in it.
CacheModel::Listings ListAll(const std::filesystem::path& root) {
  CacheModel::Listings listings;
  listings[""] = ListInOrder(root);
  for (const std::string& name : listings[""]) {
    if (name != "." && name != "..") {
      listings[name] = ListInOrder(root / name);
    }
  }
  return listings;
}

class Run {
 public:
  explicit Run(CacheModel& model);
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // What differs afterwards; nothing if all is well.
  std::string Do(const CacheOperation& operation);
  std::string CompareContents() const;
  std::uint64_t PassedOver() const { return m_passedOver; }

 private:
  using Events = std::vector<ACE_Message_Block*>;

  TestFaults::Fault FaultAt(FileCall call);
  std::string DoPush(const CacheOperation& operation);
  std::string DoFront(const CacheOperation& operation);
  std::string DoRestart(const CacheOperation& operation);
  void DoChange(const CacheOperation& operation);
  void ChangeFile(const CacheOperation& operation, const std::filesystem::path& path) const;
  std::string Compare() const;
  TreeSizes FilesOnDisk() const;

  CacheModel& m_model;
  TestSupport::TemporaryDirectory m_directory;
  const std::filesystem::path m_root;
  TestSupport::CountingAllocators m_allocators;
  const std::shared_ptr<AddingDisk> m_disk;
  const WindowsAgentCommon::ServiceRegistration m_registration;
  // Of the operation that is being done.
  const CacheOperation* m_operation = nullptr;
  std::int64_t m_listings = 0;
  std::uint64_t m_passedOver = 0;
  std::shared_ptr<EventCache> m_cache;
};

Run::Run(CacheModel& model)
    : m_model(model),
      m_root(m_directory.Path() / "Events" / "Test"),
      m_disk(std::make_shared<AddingDisk>(m_directory.WidePath())),
      m_registration(IDiskManager::GetServiceName(), m_disk) {
  TestFaults::SetHook([this](FileCall call) { return FaultAt(call); });
  CacheOperation clock;
  clock.kind = Kind::Clock;
  clock.numbers = {CacheModel::kStart};
  DoChange(clock);
  CacheOperation restart;
  restart.kind = Kind::Restart;
  DoRestart(restart);
}

Run::~Run() {
  m_cache.reset();
  ChunkBuffer::SetReallocate(nullptr);
  TestFaults::Reset();
  Platform::TestClock::Reset();
}

TestFaults::Fault Run::FaultAt(FileCall call) {
  if (m_operation == nullptr) {
    return {};
  }
  if (m_operation->fault && m_operation->fault->call == call) {
    const CacheFault& fault = *m_operation->fault;
    if (call == FileCall::WriteFile) {
      return {fault.error, fault.detail};
    }
    const bool isCounted = call == FileCall::FindFirstFileW ||
                           (call == FileCall::FindNextFileW && m_operation->kind == Kind::Restart);
    if (!isCounted || fault.detail < 0 || fault.detail == m_listings++) {
      return {fault.error};
    }
  }
  const bool makesOrRemoves = call == FileCall::CreateDirectoryW ||
                              call == FileCall::RemoveDirectoryW || call == FileCall::Unlink ||
                              (call == FileCall::CreateFileW && m_operation->kind == Kind::Push);
  return {makesOrRemoves && m_model.IsReadOnly() ? ERROR_ACCESS_DENIED : 0u};
}

std::string Run::Do(const CacheOperation& operation) {
  if (!m_model.IsPossible(operation)) {
    ++m_passedOver;
    return {};
  }
  m_listings = 0;
  m_operation = &operation;
  std::string difference;
  switch (operation.kind) {
    case Kind::Push:
      difference = DoPush(operation);
      break;
    case Kind::Front:
      difference = DoFront(operation);
      break;
    case Kind::Pop:
      m_model.Pop(operation);
      m_cache->Pop();
      break;
    case Kind::Restart:
      difference = DoRestart(operation);
      break;
    default:
      DoChange(operation);
      break;
  }
  m_operation = nullptr;
  return difference.empty() ? Compare() : difference;
}

std::string Run::DoPush(const CacheOperation& operation) {
  Events events;
  std::vector<std::string> unread;
  std::size_t part = 0;
  const auto make = [&](const BlockSize& size) {
    const auto tag = static_cast<std::uint64_t>(operation.numbers[0]);
    const std::string bytes = ModelBytes(tag, part, size.read + size.length);
    unread.push_back(bytes.substr(size.read));
    return MakeBlock(bytes, size.read);
  };
  for (const EventSize& size : operation.events) {
    events.push_back(make(size.head));
    ++part;
    if (size.payload) {
      events.back()->cont(make(*size.payload));
    }
    ++part;
  }
  const Events before = events;

  const CacheModel::PushOutcome expected = m_model.Push(operation);
  const bool result = m_cache->Push(events);
  std::ostringstream text;
  if (result != expected.result) {
    text << "Push gives " << result << ", expected " << expected.result;
  } else if (expected.emptied ? !events.empty() : events != before) {
    text << "Push leaves " << events.size() << " of " << before.size() << " events in the vector";
  } else if (result && ReadBytes(m_root / expected.path) != m_model.Files().at(expected.path)) {
    text << "Push writes other bytes into " << expected.path;
  }
  auto bytes = unread.cbegin();
  for (ACE_Message_Block* const event : events) {
    for (const ACE_Message_Block* block = event; block != nullptr; block = block->cont()) {
      if (bytes == unread.cend() || UnreadBytes(*block) != *bytes++) {
        text << "Push changes an event that it gives back";
      }
    }
    event->release();
  }
  return text.str();
}

std::string Run::DoFront(const CacheOperation& operation) {
  const CacheModel::FrontOutcome expected = m_model.Front(operation);
  m_allocators.Blocks().FailAfter(static_cast<long>(operation.blocks.value_or(-1)));
  Events events;
  const bool result = m_cache->Front(events);
  m_allocators.Blocks().FailAfter(-1);
  std::ostringstream text;
  if (result != expected.result || events.size() != expected.events.size()) {
    text << "Front gives " << result << " and " << events.size() << " events, expected "
         << expected.result << " and " << expected.events.size();
  }
  for (std::size_t i = 0; text.str().empty() && i < events.size(); ++i) {
    if (!IsRebuilt(events[i], expected.events[i].head, true) ||
        !IsRebuilt(events[i]->cont(), expected.events[i].payload, false)) {
      text << "Front rebuilds event " << i << " otherwise";
    }
  }
  for (ACE_Message_Block* const event : events) {
    event->release();
  }
  return text.str();
}

std::string Run::DoRestart(const CacheOperation& operation) {
  const std::string contents = m_cache ? CompareContents() : std::string();
  if (!contents.empty()) {
    return contents;
  }
  const EventCache* const before = m_cache.get();
  CacheModel::Listings listings;
  if (operation.fault && operation.fault->call == FileCall::FindNextFileW) {
    m_operation = nullptr;
    listings = ListAll(m_root);
    m_operation = &operation;
  }
  const std::uint32_t expected = m_model.Restart(operation, listings);
  const std::uint32_t result = CreateEventCache(L"Test", m_cache);
  std::ostringstream text;
  if (result != expected) {
    text << "CreateEventCache gives " << result << ", expected " << expected;
  } else if (result != 0 && m_cache.get() != before) {
    text << "CreateEventCache changes the pointer though it fails";
  }
  return text.str();
}

void Run::DoChange(const CacheOperation& operation) {
  const std::optional<std::string> file = m_model.FileMeant(operation);
  m_model.Change(operation);
  m_disk->m_refuses = m_model.RefusesRoom();
  ChunkBuffer::SetReallocate(m_model.RefusesMemory() ? &RefuseMemory : nullptr);
  if (operation.kind == Kind::Clock) {
    constexpr std::int64_t kMillisecondsFrom1601To1970 = 11644473600000;
    Platform::TestClock::Set(
        static_cast<std::uint64_t>(operation.numbers[0] + kMillisecondsFrom1601To1970) * 10'000);
  } else if (operation.kind == Kind::Vanish) {
    std::filesystem::remove_all(m_root);
  } else if (operation.kind == Kind::Stray) {
    const auto size = static_cast<std::size_t>(operation.numbers[0]);
    std::filesystem::create_directories((m_root / operation.path).parent_path());
    WriteBytes(m_root / operation.path, ModelBytes(size, 0, size));
  } else if (operation.kind == Kind::MakeDirectory) {
    std::filesystem::create_directories(m_root / operation.path);
  } else if (file) {
    ChangeFile(operation, m_root / *file);
  }
}

void Run::ChangeFile(const CacheOperation& operation, const std::filesystem::path& path) const {
  if (operation.kind == Kind::Delete) {
    std::filesystem::remove(path);
  } else if (operation.kind == Kind::Resize) {
    std::filesystem::resize_file(path, static_cast<std::uint64_t>(operation.numbers[1]));
  } else if (std::string bytes = ReadBytes(path); !bytes.empty()) {
    bytes[static_cast<std::size_t>(operation.numbers[1]) % bytes.size()] =
        static_cast<char>(operation.numbers[2]);
    WriteBytes(path, bytes);
  }
}

TreeSizes Run::FilesOnDisk() const {
  TreeSizes tree;
  if (!std::filesystem::exists(m_root)) {
    return tree;
  }
  tree.emplace("", std::nullopt);
  const std::size_t prefix = m_root.generic_string().size() + 1;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(m_root)) {
    tree.emplace(
        entry.path().generic_string().substr(prefix),
        entry.is_directory() ? std::nullopt : std::optional<std::uint64_t>(entry.file_size()));
  }
  return tree;
}

std::string Run::Compare() const {
  std::ostringstream text;
  if (m_cache->Empty() != m_model.Empty()) {
    text << "Empty gives " << m_cache->Empty();
  } else if (m_disk->m_reserved != m_model.Reserved() || m_disk->m_released != m_model.Released()) {
    text << "the disk manager was asked for " << m_disk->m_reserved << " bytes and got back "
         << m_disk->m_released << ", expected " << m_model.Reserved() << " and "
         << m_model.Released();
  } else if (!m_disk->m_firstIsZero) {
    text << "the first argument of the disk manager is not 0";
  } else if (!m_allocators.NothingAlive()) {
    text << m_allocators.BlocksAlive() << " message blocks are alive";
  } else {
    const TreeSizes files = FilesOnDisk();
    const TreeSizes expected = SizesOf(m_model.Files());
    if (files != expected) {
      text << "files:" << Describe(files) << "\n  expected:" << Describe(expected);
    }
  }
  return text.str();
}

std::string Run::CompareContents() const {
  for (const auto& [path, bytes] : m_model.Files()) {
    if (bytes && ReadBytes(m_root / path) != *bytes) {
      return "other bytes in " + path;
    }
  }
  return {};
}

}  // namespace

std::optional<CacheDifference> RunCacheOperations(const CacheOperations& operations,
                                                  const MakeCacheModel& makeModel,
                                                  std::map<std::string, std::uint64_t>* met) {
  SYSTEM_INFO system{};
  GetSystemInfo(&system);
  const std::unique_ptr<CacheModel> model = makeModel(system.dwPageSize);
  Run run(*model);
  for (std::size_t i = 0; i < operations.size(); ++i) {
    if (std::string text = run.Do(operations[i]); !text.empty()) {
      return CacheDifference{i, std::move(text)};
    }
  }
  if (std::string text = run.CompareContents(); !text.empty()) {
    return CacheDifference{operations.size(), std::move(text)};
  }
  if (met != nullptr) {
    for (const auto& [what, times] : model->Met()) {
      (*met)[what] += times;
    }
    (*met)[kPassedOver] += run.PassedOver();
  }
  return std::nullopt;
}

}  // namespace OrloStoreAndForward
