#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

namespace OrloAgent {

// What stays the same when a file is renamed. A number may be given to another file once its file
// is removed.
struct FileId {
  std::uint64_t device = 0;
  std::uint64_t index = 0;

  bool operator==(const FileId&) const = default;
  bool operator<(const FileId& other) const {
    return std::tie(device, index) < std::tie(other.device, other.index);
  }
};

// A regular file that is open for reading while others write, rename and remove it. The part that
// depends on the operating system. One thread.
class InputFile {
 public:
  // Null and the reason in `error` if it can't be opened, or is no regular file.
  static std::unique_ptr<InputFile> Open(const std::filesystem::path& path, std::string& error);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  const FileId& GetId() const { return m_id; }

  // Nothing if the system can't tell any more.
  std::optional<std::uint64_t> GetSize() const;

  // Reads from the offset on; 0 at the end of the file, nothing on an error.
  std::optional<std::size_t> Read(std::uint64_t offset, char* buffer, std::size_t capacity) const;

 private:
  struct Handle;
  InputFile(std::unique_ptr<Handle> handle, const FileId& id);

  const std::unique_ptr<Handle> m_handle;
  const FileId m_id;
};

// The regular file that the path names now.
std::optional<FileId> FindFileId(const std::filesystem::path& path);

}  // namespace OrloAgent
