#pragma once

// Between the wide paths of the calls and the byte paths of the file system. Any thread.

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "Platform/Windows.h"

namespace Platform {

// Writes the path in UTF-8 with '/' separators, a run of them as one, to `native`. Returns
// ERROR_INVALID_PARAMETER for a null path, ERROR_PATH_NOT_FOUND for an empty one, and
// ERROR_INVALID_NAME for a unit that stands neither for a character nor for a byte (Windows.h).
DWORD ToNativePath(LPCWSTR path, std::string& native);

// A name as it is listed; ToNativePath turns it back into the same bytes, whatever they are.
std::wstring FromNativeName(std::string_view name);

// The Windows code for an errno value that a call on `native` gave. This is the one place that
// tells ERROR_FILE_NOT_FOUND (the parent is a directory) from ERROR_PATH_NOT_FOUND (it is not, or
// does not exist). Something that exists and is used as a directory without being one is
// ERROR_DIRECTORY; a separator behind the name of a file is ERROR_INVALID_NAME.
DWORD PathError(int error, const std::string& native);

// A file without any write permission is read-only, whoever asks. A directory carries
// FILE_ATTRIBUTE_DIRECTORY alone.
DWORD AttributesOf(const struct stat& status);

}  // namespace Platform
