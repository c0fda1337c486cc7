#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace OrloAgent {

// Whether this build can compress files.
bool IsGzipAvailable();

// Writes `from` in gzip's format to `to`, which gets the same permissions. False if that was not
// possible, and the reason is left in `problem`, or if `isCancelled` said so in between, and
// `problem` is empty. What was written of `to` is left.
bool CompressFile(const std::filesystem::path& from, const std::filesystem::path& to,
                  const std::function<bool()>& isCancelled, std::string& problem);

// Whether `compressed` is complete and holds exactly what `plain` holds. False also if that can't
// be told, or `isCancelled` said so in between.
bool HoldsCompressed(const std::filesystem::path& compressed, const std::filesystem::path& plain,
                     const std::function<bool()>& isCancelled);

}  // namespace OrloAgent
