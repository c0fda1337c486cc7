#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace OrloAgent {

// A file that is appended to, as the system has it. Others may read, rename and remove it while it
// is open. Closed when the object ends. One thread.
class AppendFile {
 public:
  // The path in UTF-8. Opens nothing yet.
  explicit AppendFile(const std::string& path);
  ~AppendFile();
  AppendFile(const AppendFile&) = delete;
  AppendFile& operator=(const AppendFile&) = delete;

  const std::string& GetPath() const { return m_path; }

  // Makes the file and missing directories. Empty if it is open then, else why it is not. Requires
  // that it is closed.
  std::string Open();
  // Makes the file where nothing is yet, not even a link, for whom the process lets read new files.
  // Empty or the reason, and requires what Open does.
  std::string OpenNew();
  bool IsOpen() const;
  void Close();

  // Whether what is open is still found under the path. Requires that it is open.
  bool IsStillThere() const;

  // How many bytes were written, and why not all of them. Requires that it is open.
  struct Written {
    std::size_t count = 0;
    std::string problem;  // empty: all were written
  };
  Written Write(std::string_view bytes);

 private:
  const std::string m_path;
  // The system's own name of the open file, a descriptor or handle; what means none is the
  // system's, too.
  std::intptr_t m_file;
};

}  // namespace OrloAgent
