#include "Agent/RotatedFiles.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "Agent/DiskSync.h"
#include "Agent/Gzip.h"
#include "Agent/PathText.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using std::chrono::system_clock;
using WindowsAgentCommon::LogFacade;

namespace {

namespace fs = std::filesystem;
using Time = std::chrono::sys_time<milliseconds>;

// 0 stands for a digit.
constexpr std::string_view kTimeShape = ".0000-00-00T00-00-00.000Z";
constexpr std::string_view kCompressed = ".gz";
constexpr std::string_view kUnfinished = ".gz.part";

bool HasTimeShape(std::string_view text) {
  return std::equal(
      text.begin(), text.end(), kTimeShape.begin(), kTimeShape.end(), [](char c, char shape) {
        return shape == '0' ? std::isdigit(static_cast<unsigned char>(c)) != 0 : c == shape;
      });
}

// What stands behind the time in the name of a file that was closed as `file`; nothing for others.
std::optional<std::string> GetEnding(const fs::path& path, const fs::path& file) {
  const std::string name = ToText(path.filename());
  const std::string own = ToText(file.filename());
  if (!name.starts_with(own) || name.size() < own.size() + kTimeShape.size() ||
      !HasTimeShape(std::string_view(name).substr(own.size(), kTimeShape.size()))) {
    return std::nullopt;
  }
  return name.substr(own.size() + kTimeShape.size());
}

fs::path WithoutEnding(const fs::path& path, std::string_view ending) {
  const std::string text = ToText(path);
  return ToPath(text.substr(0, text.size() - ending.size()));
}

fs::path WithEnding(const fs::path& path, std::string_view ending) {
  return ToPath(ToText(path) + std::string(ending));
}

// The time in the name of a file that was closed as `file`.
Time GetTime(const fs::path& path, const fs::path& file) {
  const std::string text = ToText(path.filename()).substr(ToText(file.filename()).size());
  const auto number = [&](std::size_t at, std::size_t digits) {
    return std::stoi(text.substr(at, digits));
  };
  const std::chrono::year_month_day date{std::chrono::year(number(1, 4)),
                                         std::chrono::month(static_cast<unsigned>(number(6, 2))),
                                         std::chrono::day(static_cast<unsigned>(number(9, 2)))};
  return std::chrono::sys_days(date) + std::chrono::hours(number(12, 2)) +
         std::chrono::minutes(number(15, 2)) + std::chrono::seconds(number(18, 2)) +
         milliseconds(number(21, 3));
}

std::vector<fs::path> FindWithEnding(const fs::path& file, std::string_view ending) {
  std::vector<fs::path> found;
  std::error_code error;
  const fs::path parent = file.parent_path();
  for (fs::directory_iterator at(parent.empty() ? "." : parent, error), end; !error && at != end;
       at.increment(error)) {
    const auto has = GetEnding(at->path(), file);
    if (has && *has == ending) {
      found.push_back(parent / at->path().filename());
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace

fs::path MakeRotatedName(const fs::path& file, Time time) {
  const milliseconds sinceEpoch = time.time_since_epoch();
  const auto days = std::chrono::floor<std::chrono::days>(sinceEpoch);
  const std::chrono::year_month_day date{std::chrono::sys_days(days)};
  const std::chrono::hh_mm_ss<milliseconds> clock(sinceEpoch - days);
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), ".%04d-%02u-%02uT%02d-%02d-%02d.%03dZ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()),
                static_cast<int>(clock.subseconds().count()));
  return WithEnding(file, text.data());
}

RotatedFiles::RotatedFiles(fs::path file, const RotationOptions& options,
                           const std::string& streamName)
    : m_file(std::move(file)),
      m_options(options),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.FileDestination." + streamName)) {
  const std::vector<fs::path> found = Find();
  if (!found.empty()) {
    m_newest = GetTime(found.back(), m_file);
  }
  m_thread = std::thread(&RotatedFiles::Run, this);
}

RotatedFiles::~RotatedFiles() {
  {
    const std::lock_guard guard(m_lock);
    m_stop = true;
  }
  m_changed.notify_all();
  m_thread.join();
}

void RotatedFiles::Close(std::error_code& error) {
  // A clock that was set back, or a second file in one millisecond.
  Time time =
      std::max(std::chrono::floor<milliseconds>(system_clock::now()), m_newest + milliseconds(1));
  fs::path name = MakeRotatedName(m_file, time);
  while (fs::exists(name, error)) {
    time += milliseconds(1);
    name = MakeRotatedName(m_file, time);
  }
  fs::rename(m_file, name, error);
  if (error) {
    // On Windows the library has one reason for all.
    if (std::error_code ignored; !fs::exists(m_file, ignored)) {
      error = std::make_error_code(std::errc::no_such_file_or_directory);
    }
    return;
  }
  m_newest = time;
  LogFacade::Info(m_log, "The file %s is now %s.", ToText(m_file), ToText(name));
  {
    const std::lock_guard guard(m_lock);
    m_work = true;
  }
  m_changed.notify_all();
}

std::vector<fs::path> RotatedFiles::Find() const {
  std::vector<fs::path> files = FindWithEnding(m_file, "");
  for (const fs::path& compressed : FindWithEnding(m_file, kCompressed)) {
    // For a moment there are both.
    if (!std::binary_search(files.begin(), files.end(), WithoutEnding(compressed, kCompressed))) {
      files.push_back(compressed);
      std::inplace_merge(files.begin(), files.end() - 1, files.end());
    }
  }
  return files;
}

void RotatedFiles::Run() {
  RemoveLeftovers();
  std::unique_lock lock(m_lock);
  for (;;) {
    m_changed.wait(lock, [this] { return m_work || m_stop; });
    if (m_stop) {
      return;
    }
    m_work = false;
    lock.unlock();
    DeleteOldest();
    if (m_options.compress) {
      CompressAll();
    }
    lock.lock();
  }
}

bool RotatedFiles::IsStopping() {
  const std::lock_guard guard(m_lock);
  return m_stop;
}

void RotatedFiles::RemoveLeftovers() {
  std::error_code ignored;
  for (const fs::path& unfinished : FindWithEnding(m_file, kUnfinished)) {
    fs::remove(unfinished, ignored);
  }
  for (const fs::path& compressed : FindWithEnding(m_file, kCompressed)) {
    const fs::path plain = WithoutEnding(compressed, kCompressed);
    if (!fs::is_regular_file(compressed, ignored) || !fs::is_regular_file(plain, ignored)) {
      continue;
    }
    if (HoldsCompressed(compressed, plain, [this] { return IsStopping(); })) {
      RemovePlain(plain);
    } else if (!IsStopping()) {
      LogFacade::Warn(m_log, "The file %s does not hold all of %s, %s.", ToText(compressed),
                      ToText(plain), m_options.compress ? "and is made anew" : "which is kept");
    }
  }
}

// Only when its successor is on the disk by its name: a power cut may keep one and lose the other.
void RotatedFiles::RemovePlain(const fs::path& plain) {
  std::error_code error = SyncDirectory(plain.parent_path());
  if (error) {
    LogFacade::Warn(m_log,
                    "The file %s is compressed, but stays: its directory can't be brought to the "
                    "disk (%s).",
                    ToText(plain), error.message());
    return;
  }
  fs::remove(plain, error);
  if (error) {
    LogFacade::Warn(m_log, "The file %s is compressed, but can't be removed (%s).", ToText(plain),
                    error.message());
  }
}

void RotatedFiles::DeleteOldest() {
  const std::vector<fs::path> files = Find();
  if (m_options.keep == 0 || files.size() <= m_options.keep) {
    return;
  }
  for (std::size_t i = 0; i < files.size() - m_options.keep; ++i) {
    std::error_code error;
    fs::remove(files[i], error);
    if (error) {
      LogFacade::Warn(m_log, "The file %s, which is one too many, can't be deleted (%s).",
                      ToText(files[i]), error.message());
    }
  }
}

void RotatedFiles::CompressAll() {
  for (const fs::path& plain : FindWithEnding(m_file, "")) {
    if (IsStopping()) {
      return;
    }
    Compress(plain);
  }
}

void RotatedFiles::Compress(const fs::path& plain) {
  const fs::path unfinished = WithEnding(plain, kUnfinished);
  std::string problem;
  std::error_code error;
  if (CompressFile(
          plain, unfinished, [this] { return IsStopping(); }, problem)) {
    error = SyncFile(unfinished);
    if (!error) {
      fs::rename(unfinished, WithEnding(plain, kCompressed), error);
    }
    if (!error) {
      RemovePlain(plain);
      return;
    }
  } else if (problem.empty()) {
    fs::remove(unfinished, error);
    return;  // stopping
  }
  if (error) {
    problem = error.message();
  }
  if (!problem.empty()) {
    fs::remove(unfinished, error);
    LogFacade::Warn(m_log, "The file %s can't be compressed (%s); it stays as it is for now.",
                    ToText(plain), problem);
  }
}

}  // namespace OrloAgent
