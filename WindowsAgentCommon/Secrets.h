#pragma once

#include <set>
#include <string>
#include <string_view>

namespace WindowsAgentCommon {

// Texts that must not be shown, the longest first, so that one that contains another goes as a
// whole.
struct LongerFirst {
  bool operator()(const std::string& left, const std::string& right) const {
    return left.size() != right.size() ? left.size() > right.size() : left < right;
  }
};
using Secrets = std::set<std::string, LongerFirst>;

// The text with "(hidden)" in place of every secret.
//
// A secret of less than four characters, or of less than eight that are all digits, is replaced
// only where it stands alone between quotes or parentheses: it would be found by chance in every
// other number and word.
std::string HideSecrets(std::string_view text, const Secrets& secrets);

// The same for a text that may have been cut to a fixed size: the beginning of a secret, four
// characters or more, with which it ends is hidden, too.
std::string HideCutSecrets(std::string_view text, const Secrets& secrets);

}  // namespace WindowsAgentCommon
