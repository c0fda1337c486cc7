#include "CacheTool/System.h"

#include <sys/stat.h>
#include <unistd.h>

namespace OrloCacheTool {

bool IsErrorTerminal() { return isatty(STDERR_FILENO) != 0; }

void GiveToOwnerOf(const std::filesystem::path& model, const std::filesystem::path& made) {
  struct stat owner {};
  if (stat(model.c_str(), &owner) == 0) {
    [[maybe_unused]] const int result = lchown(made.c_str(), owner.st_uid, owner.st_gid);
  }
}

}  // namespace OrloCacheTool
