#pragma once

#include <cstdint>
#include <string>

// All return 0 or a Windows error code. A trailing separator does not matter. Any thread.
namespace WindowsAgentCommon {

// Makes the directory and every missing parent. A directory that exists is success; a file in the
// way gives ERROR_ALREADY_EXISTS for the last component and ERROR_PATH_NOT_FOUND for a parent.
std::uint32_t CreateDirectoryRecursive(const std::wstring& path);

// `isDirectory` is false whenever the result is not 0. A missing last component gives
// ERROR_FILE_NOT_FOUND, a missing parent ERROR_PATH_NOT_FOUND.
std::uint32_t IsDirectory(const std::wstring& path, bool& isDirectory);

// Whether the directory holds nothing but "." and "..". `isEmpty` is left alone on failure.
std::uint32_t IsDirectoryEmpty(const std::wstring& path, bool& isEmpty);

}  // namespace WindowsAgentCommon
