#pragma once

#include <map>
#include <string>
#include <vector>

namespace WindowsAgentCommon {

// A component's configuration: key to value, both narrow; a key with a list of values has one
// entry per element, in order.
using EnvironmentBlock = std::multimap<std::string, std::string>;

// Reads typed values out of a configuration block. Every read says whether a usable value was
// found and fills the result in either case, with the default if not. A value that can't be read
// as its type, or does not fit, gives the default and one Error line (logger
// "Code.EnvironmentBlockHelper") that names key, value and default: a bad setting never stops
// collection and never goes unseen. Where a single value is asked for and the key has several, the
// first is read and a Warn line says so.
//
// Borrows the block, which must outlive the helper. One thread.
class EnvironmentBlockHelper {
 public:
  explicit EnvironmentBlockHelper(const EnvironmentBlock& environment);

  // Signed 32-bit decimal, blanks around it allowed, nothing else. The long form has the same
  // range whatever the width of long.
  bool GetIntegerValue(const std::string& key, int& value, int defaultValue) const;
  bool GetIntegerValue(const std::string& key, long& value, long defaultValue) const;

  // true, false, 1, 0, yes, no, on, off in any letter case.
  bool GetBooleanValue(const std::string& key, bool& value, bool defaultValue) const;

  // Every value of the key, in order; false and empty when there is none.
  bool GetArrayValue(const std::string& key, std::vector<std::string>& values) const;

 private:
  const std::string* FindSingle(const std::string& key) const;

  const EnvironmentBlock& m_environment;
};

}  // namespace WindowsAgentCommon
