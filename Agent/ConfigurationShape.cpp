#include "Agent/ConfigurationShape.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <sstream>
#include <unordered_map>
#include <vector>

namespace OrloAgent {

namespace {

// The deepest configuration needs less than ten.
constexpr std::size_t kDeepest = 64;

// Bytes of keys and values with all aliases written out, and something for each node. Without
// aliases the largest file that is accepted does not come near.
constexpr std::uint64_t kLargest = 32 * 1024 * 1024;
constexpr std::uint64_t kSizeOfNode = 16;

class ShapeChecker : public YAML::EventHandler {
 public:
  // Thrown at the first problem: what follows it may have no end.
  struct Problem {
    ConfigurationMistake mistake;
  };

  void OnDocumentStart(const YAML::Mark& /*mark*/) override { ++m_documents; }
  void OnDocumentEnd() override {}

  void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    AddValue(mark, anchor, kSizeOfNode);
  }

  void OnScalar(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t anchor,
                const std::string& value) override {
    AddValue(mark, anchor, kSizeOfNode + value.size());
  }

  void OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    const auto found = m_sizes.find(anchor);
    if (found == m_sizes.end()) {
      Refuse(mark, "a list or map contains itself");
    }
    AddValue(mark, YAML::NullAnchor, found->second);
  }

  void OnSequenceStart(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t anchor,
                       YAML::EmitterStyle::value /*style*/) override {
    Open(mark, anchor);
  }
  void OnSequenceEnd() override { Close(); }

  void OnMapStart(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t anchor,
                  YAML::EmitterStyle::value /*style*/) override {
    Open(mark, anchor);
  }
  void OnMapEnd() override { Close(); }

 private:
  // A list or map whose end has not come.
  struct Collection {
    YAML::Mark mark;
    YAML::anchor_t anchor;
    std::uint64_t size;
  };

  [[noreturn]] static void Refuse(const YAML::Mark& mark, const std::string& problem) {
    throw Problem{{mark.line + 1, "", problem}};
  }

  void CheckDocument(const YAML::Mark& mark) const {
    if (m_documents > 1) {
      Refuse(mark, "a second document begins; the file must hold one");
    }
  }

  void Open(const YAML::Mark& mark, YAML::anchor_t anchor) {
    CheckDocument(mark);
    if (m_open.size() == kDeepest) {
      Refuse(mark, "lists and maps are nested more than " + std::to_string(kDeepest) + " deep");
    }
    m_open.push_back({mark, anchor, kSizeOfNode});
  }

  void Close() {
    const Collection closed = m_open.back();
    m_open.pop_back();
    AddValue(closed.mark, closed.anchor, closed.size);
  }

  void AddValue(const YAML::Mark& mark, YAML::anchor_t anchor, std::uint64_t size) {
    CheckDocument(mark);
    if (anchor != YAML::NullAnchor) {
      m_sizes[anchor] = size;
    }
    if (m_open.empty()) {
      return;
    }
    m_open.back().size += size;
    if (m_open.back().size > kLargest) {
      Refuse(mark, "with its aliases written out the configuration is larger than 32 MiB");
    }
  }

  int m_documents = 0;
  std::vector<Collection> m_open;
  // Of what an alias may stand for.
  std::unordered_map<YAML::anchor_t, std::uint64_t> m_sizes;
};

}  // namespace

std::optional<ConfigurationMistake> FindProblemOfShape(const std::string& text) {
  std::istringstream stream(text);
  YAML::Parser parser(stream);
  ShapeChecker checker;
  try {
    // One document after the other: text that the parser can't consume gives documents for ever,
    // but the second one is refused.
    while (parser.HandleNextDocument(checker)) {
    }
  } catch (const ShapeChecker::Problem& problem) {
    return problem.mistake;
  }
  return std::nullopt;
}

}  // namespace OrloAgent
