#include "CacheTool/NewFile.h"

#include "Agent/AppendFile.h"
#include "Agent/DiskSync.h"
#include "Agent/PathText.h"
#include "CacheTool/ToolError.h"

namespace OrloCacheTool {

void WriteNewFile(const std::filesystem::path& path, std::string_view bytes) {
  const std::string name = OrloAgent::ToText(path);
  OrloAgent::AppendFile file(name);
  std::string problem = file.OpenNew();
  if (!problem.empty()) {
    throw ToolError(name + " can't be made: " + problem);
  }
  problem = file.Write(bytes).problem;
  file.Close();
  if (problem.empty()) {
    if (const std::error_code error = OrloAgent::SyncFile(path)) {
      problem = error.message();
    }
  }
  if (!problem.empty()) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    throw ToolError(name + " can't be written: " + problem);
  }
}

}  // namespace OrloCacheTool
