#include "Agent/Gzip.h"

namespace OrloAgent {

bool IsGzipAvailable() { return false; }

bool CompressFile(const std::filesystem::path&, const std::filesystem::path&,
                  const std::function<bool()>&, std::string& problem) {
  problem = "this program was built without gzip";
  return false;
}

bool HoldsCompressed(const std::filesystem::path&, const std::filesystem::path&,
                     const std::function<bool()>&) {
  return false;
}

}  // namespace OrloAgent
