#include "Agent/FileSource.h"

#include <algorithm>
#include <system_error>

#include "Agent/PathPattern.h"
#include "Agent/PathText.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;
using Clock = FollowedFile::Clock;

namespace {

constexpr std::size_t kReadSize = 256 * 1024;

// Who writes a file may go on with it for a while after it was renamed.
constexpr std::chrono::seconds kLongestTrail{60};

// Where in the file's directory the file is now; empty if it isn't there.
std::filesystem::path FindRenamed(const std::filesystem::path& followed, const FileId& id) {
  if (FindFileId(followed) == id) {
    return followed;
  }
  std::error_code error;
  const std::filesystem::path parent = followed.parent_path();
  for (std::filesystem::directory_iterator at(parent.empty() ? "." : parent, error), end;
       !error && at != end; at.increment(error)) {
    if (FindFileId(at->path()) == id) {
      return at->path();
    }
  }
  return {};
}

}  // namespace

FileSource::FileSource(const FileSourceOptions& options, std::filesystem::path positions)
    : m_options(options), m_positions(std::move(positions)), m_buffer(kReadSize) {}

FileSource::~FileSource() { Stop(); }

void FileSource::Begin(const std::string& streamName) {
  m_log = WindowsAgentCommon::LoggerFactory::GetLog("Code.FileSource." + streamName);
  m_poster =
      std::make_unique<EventPoster>(GetGate(), GetPostCounts(), m_log, Untaken::OfferedAgain);
  try {
    m_startAtEnd = m_options.start == FileStart::End && !std::filesystem::exists(m_positions);
    std::filesystem::create_directories(m_positions);
    m_thread = std::thread(&FileSource::Run, this);
  } catch (const std::system_error& error) {
    throw WindowsAgentCommon::InitializationException(
        "FileSource", "OrloAgent::FileSource::Begin", __LINE__,
        "Files can't be followed: positions can't be kept in " + ToText(m_positions) + " (" +
            error.code().message() + ")");
  }
  for (const std::string& path : m_options.paths) {
    LogFacade::Info(m_log, "Following %s.", path);
  }
}

void FileSource::End() {
  if (!m_thread.joinable()) {
    return;
  }
  {
    const std::lock_guard guard(m_lock);
    m_stop = true;
  }
  m_stopped.notify_all();
  m_thread.join();
  LogFacade::Info(m_log, "%d events came from files.", GetPosted());
}

std::vector<EndCounter> FileSource::GetCounters() const {
  return {{"events", "Events that the source has posted", GetPosted()}};
}

void FileSource::Run() {
  Restore();
  do {
    const auto now = Clock::now();
    LookForFiles(now);
    ReadAll(now);
    DropLeft(now);
  } while (WaitForNextLook());
}

bool FileSource::WaitForNextLook() {
  std::unique_lock lock(m_lock);
  return !m_stopped.wait_for(lock, m_options.pollInterval, [this] { return m_stop.load(); });
}

// Files that were followed before, and have got another name since: what they hold is older than
// what the files that now have their names hold.
void FileSource::Restore() {
  std::error_code error;
  std::vector<std::filesystem::path> records;
  for (std::filesystem::directory_iterator at(m_positions, error), end; !error && at != end;
       at.increment(error)) {
    records.push_back(at->path());
  }
  std::sort(records.begin(), records.end());
  for (const std::filesystem::path& record : records) {
    Restore(record);
  }
}

void FileSource::Restore(const std::filesystem::path& record) {
  const auto id = PositionRecord::GetId(record);
  if (!id) {
    return;  // begun and not finished, or not ours
  }
  auto loaded = PositionRecord::Load(record);
  if (!loaded) {
    LogFacade::Warn(m_log, "The position in %s can't be read; its file is read from the beginning.",
                    ToText(record));
    return;
  }
  const std::filesystem::path path = FindRenamed(loaded->GetFollowed(), *id);
  if (path.empty()) {
    LogFacade::Info(m_log, "The file %s is gone; %d bytes of it had been read.",
                    ToText(loaded->GetFollowed()), loaded->GetPosition());
    loaded->Remove();
    return;
  }
  std::string problem;
  auto file = InputFile::Open(path, problem);
  // Its number belongs to another file now.
  if (!file || file->GetId() != *id || !loaded->GetFingerprint().Fits(*file)) {
    if (path != loaded->GetFollowed()) {
      loaded->Remove();
    }
    return;
  }
  if (path != loaded->GetFollowed()) {
    m_files.emplace_back(std::move(file), path, std::move(*loaded), m_options.maxEventSize,
                         *m_poster, m_log);
  }
}

void FileSource::LookForFiles(Clock::time_point now) {
  std::set<FileId> named;
  for (const std::string& pattern : m_options.paths) {
    for (const std::filesystem::path& path : ExpandPattern(ToPath(pattern))) {
      const auto id = FindFileId(path);
      if (!id || !named.insert(*id).second) {
        continue;
      }
      const bool isFollowed = std::any_of(m_files.begin(), m_files.end(),
                                          [&](const auto& file) { return file.GetId() == *id; });
      if (!isFollowed) {
        Follow(path);
      }
    }
  }
  for (FollowedFile& file : m_files) {
    file.SetLeft(!named.contains(file.GetId()), now);
  }
  m_firstLook = false;
}

void FileSource::Follow(const std::filesystem::path& path) {
  if (m_files.size() >= m_options.maxFiles) {
    WarnOnce(path, "is not followed: " + std::to_string(m_options.maxFiles) +
                       " files are followed already, as many as max_files allows");
    return;
  }
  std::string problem;
  auto file = InputFile::Open(path, problem);
  if (!file) {
    WarnOnce(path, "can't be followed (" + problem + "); trying again");
    return;
  }
  try {
    auto record = PositionRecord::Load(PositionRecord::GetPath(m_positions, file->GetId()));
    if (record && !record->GetFingerprint().Fits(*file)) {
      LogFacade::Info(m_log,
                      "The file %s begins with other bytes than before; it is read from its "
                      "beginning.",
                      ToText(path));
      record.reset();
    }
    if (!record) {
      const bool atEnd = m_firstLook && m_startAtEnd;
      record = PositionRecord::Create(m_positions, file->GetId(), path,
                                      atEnd ? file->GetSize().value_or(0) : 0);
      record->SetFingerprint(Fingerprint::Take(*file));
    }
    m_files.emplace_back(std::move(file), path, std::move(*record), m_options.maxEventSize,
                         *m_poster, m_log);
    m_warned.erase(path);
  } catch (const std::exception& error) {
    WarnOnce(path, std::string("can't be followed: its position can't be kept (") + error.what() +
                       "); trying again");
  }
}

void FileSource::WarnOnce(const std::filesystem::path& path, const std::string& problem) {
  if (m_warned.insert(path).second) {
    LogFacade::Warn(m_log, "The file %s %s.", ToText(path), problem);
  }
}

// Those that were renamed first, so that what was written earlier is posted earlier.
void FileSource::ReadAll(Clock::time_point now) {
  for (const bool left : {true, false}) {
    for (FollowedFile& file : m_files) {
      if (file.IsLeft() == left) {
        file.ReadOn(m_buffer, m_stop, now);
      }
    }
  }
}

void FileSource::DropLeft(Clock::time_point now) {
  for (auto file = m_files.begin(); file != m_files.end();) {
    if (!m_stop && file->IsLeft() && file->GetQuiet(now) >= kLongestTrail && file->Finish()) {
      file->GetRecord().Remove();
      file = m_files.erase(file);
    } else {
      ++file;
    }
  }
}

}  // namespace OrloAgent
