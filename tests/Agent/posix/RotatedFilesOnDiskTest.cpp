// That a plain file is removed only when what it held is on the disk.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "Agent/RotatedFiles.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/posix/SyncWatch.h"

namespace fs = std::filesystem;

namespace {

constexpr char kPlain[] = "events.log.2026-11-21T00-00-00.000Z";

std::vector<std::string> List(const fs::path& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

namespace OrloAgent {

class RotatedFilesOnDiskTest : public testing::Test {
 protected:
  RotatedFilesOnDiskTest() {
    std::ofstream(m_directory.Path() / kPlain) << "precious\n";
    m_options.compress = true;
  }

  void Answer(int forFiles, int forDirectories) {
    const std::lock_guard guard(m_lock);
    m_fileError = forFiles;
    m_directoryError = forDirectories;
  }

  bool Warns(const std::string& text) {
    const std::string path = (m_directory.Path() / kPlain).string();
    return TestSupport::WaitUntil([&] {
      return m_messages.Count(WindowsAgentCommon::LogLevel::Warn, "The file " + path + text) == 1;
    });
  }

  TestSupport::LogCapture m_messages;
  const TestSupport::TemporaryDirectory m_directory;
  RotationOptions m_options;
  std::mutex m_lock;
  // The names of what was brought to the disk, each with what lay in its directory then.
  std::vector<std::pair<std::string, std::vector<std::string>>> m_synced;
  // What is answered, in place of the system's own answer.
  int m_fileError = 0;
  int m_directoryError = 0;
  // What happens then.
  std::function<void()> m_whileDirectoryIsSynced;
  const TestSupport::SyncWatch m_watch{[this](const fs::path& path) {
    std::error_code error;
    const bool isDirectory = fs::is_directory(path, error);
    const std::lock_guard guard(m_lock);
    m_synced.emplace_back(path.filename().string(), List(isDirectory ? path : path.parent_path()));
    if (isDirectory && m_whileDirectoryIsSynced) {
      std::exchange(m_whileDirectoryIsSynced, nullptr)();
    }
    return isDirectory ? m_directoryError : m_fileError;
  }};
};

TEST_F(RotatedFilesOnDiskTest, ACompressedFileAndThenItsNameAreOnTheDiskBeforeThePlainOneGoes) {
  const RotatedFiles files(m_directory.Path() / "events.log", m_options, "S");
  const std::string plain = kPlain;
  ASSERT_TRUE(TestSupport::WaitUntil(
      [&] { return List(m_directory.Path()) == std::vector{plain + ".gz"}; }));
  const std::lock_guard guard(m_lock);
  ASSERT_EQ(m_synced.size(), 2u);
  EXPECT_EQ(m_synced[0].first, plain + ".gz.part");
  EXPECT_EQ(m_synced[0].second, (std::vector{plain, plain + ".gz.part"}));
  EXPECT_EQ(m_synced[1].first, m_directory.Path().filename().string());
  EXPECT_EQ(m_synced[1].second, (std::vector{plain, plain + ".gz"}));
}

TEST_F(RotatedFilesOnDiskTest, AFileThatCanNotBeBroughtToTheDiskStaysPlain) {
  Answer(EIO, 0);
  const RotatedFiles files(m_directory.Path() / "events.log", m_options, "S");
  EXPECT_TRUE(Warns(" can't be compressed (Input/output error); it stays as it is for now."));
  EXPECT_EQ(List(m_directory.Path()), std::vector<std::string>{kPlain});
}

TEST_F(RotatedFilesOnDiskTest, WhereDirectoriesAreNotBroughtToTheDiskThePlainFileGoesAllTheSame) {
  for (const int error : {EINVAL, ENOTSUP}) {
    Answer(0, error);
    std::ofstream(m_directory.Path() / kPlain) << "precious\n";
    const RotatedFiles files(m_directory.Path() / "events.log", m_options, "S");
    EXPECT_TRUE(TestSupport::WaitUntil([&] {
      return List(m_directory.Path()) == std::vector{std::string(kPlain) + ".gz"};
    })) << error;
    fs::remove(m_directory.Path() / (std::string(kPlain) + ".gz"));
  }
}

TEST_F(RotatedFilesOnDiskTest, APlainFileThatCanNotBeRemovedIsSaidToBeCompressed) {
  m_whileDirectoryIsSynced = [this] {
    fs::remove(m_directory.Path() / kPlain);
    fs::create_directories(m_directory.Path() / kPlain / "in the way");
  };
  const RotatedFiles files(m_directory.Path() / "events.log", m_options, "S");
  EXPECT_TRUE(Warns(" is compressed, but can't be removed (Directory not empty)."));
}

TEST_F(RotatedFilesOnDiskTest, APlainFileStaysWhileTheNameOfItsSuccessorMayBeLost) {
  Answer(0, EIO);
  const RotatedFiles files(m_directory.Path() / "events.log", m_options, "S");
  const std::string plain = kPlain;
  EXPECT_TRUE(
      Warns(" is compressed, but stays: its directory can't be brought to the disk "
            "(Input/output error)."));
  EXPECT_EQ(List(m_directory.Path()), (std::vector{plain, plain + ".gz"}));
}

}  // namespace OrloAgent
