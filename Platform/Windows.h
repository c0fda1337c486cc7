#pragma once

// The Windows calls that this system uses.
//
// On Windows this is the operating system's own header. Elsewhere it declares a subset with the
// same names, signatures and error codes, implemented over POSIX in Platform/posix. This is the
// only file of the project with an operating-system #if.
//
// Every call that reports through the last error sets it on every path (0 on success, unless a
// call documents a success code, such as ERROR_ALREADY_EXISTS of CreateFileW). The last error is
// a value of the calling thread. All calls may be made from any thread; a handle belongs to one
// thread at a time. What deviates from Windows is said at each call and in docs/platform.md.

#ifdef _WIN32

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <winsock2.h>
// winsock2.h must come before windows.h.
#include <windows.h>
#include <winreg.h>
// The C runtime's own: _wunlink, _time64, _gmtime64.
#include <io.h>
#include <time.h>
#include <wchar.h>

#else

#include <cstddef>
#include <cstdint>
#include <ctime>

using BOOL = int;
using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using DWORD_PTR = std::uintptr_t;
using UINT = unsigned int;
using LONG = std::int32_t;
using LSTATUS = LONG;
using REGSAM = DWORD;
using HANDLE = void*;
using WCHAR = wchar_t;
using LPVOID = void*;
using LPCVOID = const void*;
using LPDWORD = DWORD*;
using LPBYTE = BYTE*;
using LPBOOL = BOOL*;
using LPSTR = char*;
using LPCSTR = const char*;
using LPCCH = const char*;
using LPWSTR = wchar_t*;
using LPCWSTR = const wchar_t*;
using LPCWCH = const wchar_t*;
using __time64_t = std::int64_t;

constexpr BOOL FALSE = 0;
constexpr BOOL TRUE = 1;

// ---- Error codes -------------------------------------------------------------------------------

constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD ERROR_INVALID_FUNCTION = 1;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_NO_MORE_FILES = 18;
constexpr DWORD ERROR_WRITE_PROTECT = 19;
constexpr DWORD ERROR_GEN_FAILURE = 31;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_FILE_EXISTS = 80;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_BROKEN_PIPE = 109;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
constexpr DWORD ERROR_BAD_PATHNAME = 161;
constexpr DWORD ERROR_BUSY = 170;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
constexpr DWORD ERROR_FILE_TOO_LARGE = 223;
constexpr DWORD ERROR_MORE_DATA = 234;
constexpr DWORD ERROR_DIRECTORY = 267;
constexpr DWORD ERROR_NOACCESS = 998;
constexpr DWORD ERROR_NO_UNICODE_TRANSLATION = 1113;
constexpr DWORD ERROR_IO_DEVICE = 1117;
constexpr DWORD ERROR_INVALID_USER_BUFFER = 1784;
constexpr DWORD ERROR_NOT_ENOUGH_QUOTA = 1816;
constexpr DWORD ERROR_CANT_RESOLVE_FILENAME = 1921;

DWORD GetLastError();
void SetLastError(DWORD error);

// ---- Files and directories ---------------------------------------------------------------------
//
// Paths are wide strings; '\' and '/' both separate and a run of separators counts as one. They
// are converted to UTF-8 for the file system. A byte of a file name that is not UTF-8 is listed
// as the code unit 0xDC80 + (byte - 0x80) and converted back, so every listed name can be opened.

inline const HANDLE INVALID_HANDLE_VALUE =
    reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(-1));  // NOLINT

constexpr DWORD MAX_PATH = 260;

// These five are macros, as on Windows: ACE's headers give them a value of their own unless they
// are defined, and may come before or after this one.
#undef GENERIC_READ
#undef FILE_SHARE_READ
#undef OPEN_EXISTING
#undef FILE_ATTRIBUTE_NORMAL
#undef FILE_FLAG_SEQUENTIAL_SCAN
#define GENERIC_READ 0x80000000u
#define FILE_SHARE_READ 0x1u
#define OPEN_EXISTING 3u
#define FILE_ATTRIBUTE_NORMAL 0x80u
#define FILE_FLAG_SEQUENTIAL_SCAN 0x08000000u

constexpr DWORD GENERIC_WRITE = 0x40000000u;

constexpr DWORD FILE_SHARE_WRITE = 0x2;
constexpr DWORD FILE_SHARE_DELETE = 0x4;

constexpr DWORD CREATE_NEW = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_ALWAYS = 4;
constexpr DWORD TRUNCATE_EXISTING = 5;

constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x1;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFFu;

// Always written as SECURITY_ATTRIBUTES*: ACE's headers define the usual name of the pointer as
// something else.
struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  LPVOID lpSecurityDescriptor;
  BOOL bInheritHandle;
};

struct OVERLAPPED;
using LPOVERLAPPED = OVERLAPPED*;

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};
using LPFILETIME = FILETIME*;

struct WIN32_FIND_DATAW {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  DWORD dwReserved0;
  DWORD dwReserved1;
  WCHAR cFileName[MAX_PATH];
  WCHAR cAlternateFileName[14];
};
using LPWIN32_FIND_DATAW = WIN32_FIND_DATAW*;

// The access must be GENERIC_READ, GENERIC_WRITE or both; Windows also has rights of its own and
// none at all. Share modes are accepted and not enforced. Security attributes and a template file
// must be null. Supported flags: FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_READONLY (a file that is
// created becomes read-only; without effect on an existing one), FILE_FLAG_SEQUENTIAL_SCAN; any
// other gives ERROR_INVALID_PARAMETER. A read-only file is not written even for root. Only regular
// files and character devices can be opened; anything else gives ERROR_ACCESS_DENIED, as a
// directory does. The file is not inherited by child processes.
HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                   SECURITY_ATTRIBUTES* securityAttributes, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE templateFile);

// Overlapped operation is not supported: `overlapped` must be null. A write that could be made
// only in part returns FALSE with the bytes that were written in `numberOfBytesWritten`.
BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD numberOfBytesToRead, LPDWORD numberOfBytesRead,
              LPOVERLAPPED overlapped);
BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD numberOfBytesToWrite,
               LPDWORD numberOfBytesWritten, LPOVERLAPPED overlapped);
BOOL CloseHandle(HANDLE object);

// The last component is the pattern: "*" and "*.*" list every entry, "*." those without a dot in
// their name (and "." and ".."), a name without wildcards that entry. Other patterns give
// ERROR_INVALID_PARAMETER. The order is the file system's. Names differ by case. A link is listed
// with the attributes and the size of its target. ftCreationTime and cAlternateFileName stay empty.
HANDLE FindFirstFileW(LPCWSTR fileName, LPWIN32_FIND_DATAW findFileData);
BOOL FindNextFileW(HANDLE findFile, LPWIN32_FIND_DATAW findFileData);
BOOL FindClose(HANDLE findFile);

// The security attributes must be null.
BOOL CreateDirectoryW(LPCWSTR pathName, SECURITY_ATTRIBUTES* securityAttributes);

// Does not remove a link to a directory (ERROR_DIRECTORY).
BOOL RemoveDirectoryW(LPCWSTR pathName);

// FILE_ATTRIBUTE_DIRECTORY, or for anything else FILE_ATTRIBUTE_READONLY or FILE_ATTRIBUTE_NORMAL;
// those of its target for a link. A file's path with a separator behind it gives
// ERROR_INVALID_NAME.
DWORD GetFileAttributesW(LPCWSTR fileName);

// The C runtime's: 0, or -1 with errno set. A directory or a read-only file is not deleted
// (EACCES), as on Windows. A file that is open is deleted at once and stays usable through its
// handles.
int _wunlink(const wchar_t* fileName);

// ---- System ------------------------------------------------------------------------------------

// Only dwPageSize and dwNumberOfProcessors are filled; everything else is zero.
struct SYSTEM_INFO {
  DWORD dwOemId;
  DWORD dwPageSize;
  LPVOID lpMinimumApplicationAddress;
  LPVOID lpMaximumApplicationAddress;
  DWORD_PTR dwActiveProcessorMask;
  DWORD dwNumberOfProcessors;
  DWORD dwProcessorType;
  DWORD dwAllocationGranularity;
  WORD wProcessorLevel;
  WORD wProcessorRevision;
};
using LPSYSTEM_INFO = SYSTEM_INFO*;

void GetSystemInfo(LPSYSTEM_INFO systemInfo);
void Sleep(DWORD milliseconds);

// ---- Time --------------------------------------------------------------------------------------
//
// All of these read one replaceable clock (Platform/testing/TestClock.h); it is the system's
// real-time clock unless a test replaced it.

struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};
using LPSYSTEMTIME = SYSTEMTIME*;

struct TIME_ZONE_INFORMATION {
  LONG Bias;
  WCHAR StandardName[32];
  SYSTEMTIME StandardDate;
  LONG StandardBias;
  WCHAR DaylightName[32];
  SYSTEMTIME DaylightDate;
  LONG DaylightBias;
};
using LPTIME_ZONE_INFORMATION = TIME_ZONE_INFORMATION*;

void GetSystemTime(LPSYSTEMTIME systemTime);
void GetSystemTimeAsFileTime(LPFILETIME systemTimeAsFileTime);
BOOL SystemTimeToFileTime(const SYSTEMTIME* systemTime, LPFILETIME fileTime);
BOOL FileTimeToSystemTime(const FILETIME* fileTime, LPSYSTEMTIME systemTime);

// A zone with a DaylightDate has both rules: weekday rules (wYear 0) or fixed dates, which hold for
// their month and day of every year. ERROR_INVALID_PARAMETER for an impossible time or rule, and
// for a null zone, which stands for the machine's own zone on Windows.
BOOL SystemTimeToTzSpecificLocalTime(const TIME_ZONE_INFORMATION* timeZoneInformation,
                                     const SYSTEMTIME* universalTime, LPSYSTEMTIME localTime);

__time64_t _time64(__time64_t* destinationTime);

// The result belongs to the calling thread and lives until its next call. Null, with errno
// EINVAL, for null, a negative time or one after the year 3000.
std::tm* _gmtime64(const __time64_t* sourceTime);

// ---- Registry ----------------------------------------------------------------------------------
//
// A read-only tree that holds the time zones:
// HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\Time Zones\<Windows zone name>
// with the value "TZI", made from the system's tzdata when the key is opened. Key and value names
// are compared without regard to case. Tests may add, replace and remove keys and values
// (Platform/testing/TestRegistry.h).

struct HKEY__;
using HKEY = HKEY__*;
using PHKEY = HKEY*;

inline const HKEY HKEY_LOCAL_MACHINE =
    reinterpret_cast<HKEY>(static_cast<std::uintptr_t>(0x80000002u));  // NOLINT

constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
constexpr REGSAM KEY_READ = 0x20019;
constexpr DWORD REG_NONE = 0;
constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_BINARY = 3;
constexpr DWORD REG_DWORD = 4;

// These return the error code and leave the last error alone, as on Windows. Options must be 0
// and the access KEY_QUERY_VALUE or KEY_READ.
LSTATUS RegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD options, REGSAM desiredAccess,
                      PHKEY resultKey);
LSTATUS RegQueryValueExW(HKEY key, LPCWSTR valueName, LPDWORD reserved, LPDWORD type, LPBYTE data,
                         LPDWORD dataSize);
LSTATUS RegCloseKey(HKEY key);

// ---- Text --------------------------------------------------------------------------------------
//
// wchar_t holds UTF-32 here. Surrogate pairs are accepted as well; a lone surrogate, or a byte
// sequence that is not UTF-8, becomes U+FFFD unless the error flag is given.

constexpr UINT CP_UTF8 = 65001;
constexpr DWORD WC_ERR_INVALID_CHARS = 0x80;
constexpr DWORD MB_ERR_INVALID_CHARS = 0x08;

// Only CP_UTF8; the default character and its flag must be null. A length of -1 stands for text
// that ends with NUL, which is then converted too; a capacity of 0 asks for the needed size.
int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWCH wideText, int wideLength,
                        LPSTR multiByteText, int multiByteCapacity, LPCCH defaultChar,
                        LPBOOL usedDefaultChar);
int MultiByteToWideChar(UINT codePage, DWORD flags, LPCCH multiByteText, int multiByteLength,
                        LPWSTR wideText, int wideCapacity);

#endif
