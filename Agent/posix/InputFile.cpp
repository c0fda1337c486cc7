#include "Agent/InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace OrloAgent {

namespace {

FileId MakeId(const struct stat& status) {
  return {static_cast<std::uint64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino)};
}

}  // namespace

struct InputFile::Handle {
  explicit Handle(int opened) : descriptor(opened) {}
  ~Handle() { ::close(descriptor); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const int descriptor;
};

InputFile::InputFile(std::unique_ptr<Handle> handle, const FileId& id)
    : m_handle(std::move(handle)), m_id(id) {}

InputFile::~InputFile() = default;

std::unique_ptr<InputFile> InputFile::Open(const std::filesystem::path& path, std::string& error) {
  // A pipe without a writer must not hold up the others.
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) {
    error = std::generic_category().message(errno);
    return nullptr;
  }
  auto handle = std::make_unique<Handle>(descriptor);
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) {
    error = std::generic_category().message(errno);
    return nullptr;
  }
  if (!S_ISREG(status.st_mode)) {
    error = "it is no regular file";
    return nullptr;
  }
  return std::unique_ptr<InputFile>(new InputFile(std::move(handle), MakeId(status)));
}

std::optional<std::uint64_t> InputFile::GetSize() const {
  struct stat status {};
  if (::fstat(m_handle->descriptor, &status) != 0) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

std::optional<std::size_t> InputFile::Read(std::uint64_t offset, char* buffer,
                                           std::size_t capacity) const {
  for (;;) {
    const ssize_t count =
        ::pread(m_handle->descriptor, buffer, capacity, static_cast<off_t>(offset));
    if (count >= 0) {
      return static_cast<std::size_t>(count);
    }
    if (errno != EINTR) {
      return std::nullopt;
    }
  }
}

std::optional<FileId> FindFileId(const std::filesystem::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return MakeId(status);
}

}  // namespace OrloAgent
