#include "CacheTool/System.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "Agent/PathText.h"
#include "CacheTool/ToolError.h"

namespace OrloCacheTool {

namespace {

class Descriptor {
 public:
  explicit Descriptor(int number) : m_number(number) {}
  ~Descriptor() {
    if (m_number >= 0) {
      close(m_number);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return m_number; }

 private:
  const int m_number;
};

[[noreturn]] void Fail(const std::filesystem::path& path, const char* what) {
  throw ToolError(OrloAgent::ToText(path) + what + std::generic_category().message(errno));
}

bool WriteAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

bool IsErrorTerminal() { return isatty(STDERR_FILENO) != 0; }

void GiveToOwnerOf(const std::filesystem::path& model, const std::filesystem::path& made) {
  struct stat owner {};
  if (stat(model.c_str(), &owner) == 0) {
    [[maybe_unused]] const int result = lchown(made.c_str(), owner.st_uid, owner.st_gid);
  }
}

void WriteNewFile(const std::filesystem::path& path, std::string_view bytes,
                  const std::filesystem::path& model) {
  constexpr mode_t kMode = 0666;
  // With O_EXCL no link is followed.
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  if (file.Get() < 0) {
    Fail(path, " can't be made: ");
  }
  struct stat owner {};
  if (stat(model.c_str(), &owner) == 0) {
    [[maybe_unused]] const int result = fchown(file.Get(), owner.st_uid, owner.st_gid);
  }
  if (!WriteAll(file.Get(), bytes) || fsync(file.Get()) != 0) {
    const int error = errno;
    unlink(path.c_str());
    errno = error;
    Fail(path, " can't be written: ");
  }
}

void SyncDirectory(const std::filesystem::path& directory) {
  const Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened.Get() < 0 || fsync(opened.Get()) != 0) {
    Fail(directory, " can't be brought to the disk: ");
  }
}

}  // namespace OrloCacheTool
