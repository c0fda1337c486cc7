#include "Agent/ConfigurationNodes.h"

#include <algorithm>

#include "Agent/ShownForms.h"
#include "Agent/Units.h"

namespace OrloAgent {

namespace {

constexpr std::size_t kLongestKey = 255;

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : ", ") + word;
  }
  return text;
}

int LineOf(const YAML::Node& node, int otherwise) {
  return node.Mark().is_null() ? otherwise : node.Mark().line + 1;
}

bool HasControlCharacter(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  });
}

std::string DurationText(std::chrono::milliseconds duration) {
  const auto count = duration.count();
  if (count != 0 && count % 3'600'000 == 0) {
    return std::to_string(count / 3'600'000) + "h";
  }
  return count % 1000 == 0 ? std::to_string(count / 1000) + "s" : std::to_string(count) + "ms";
}

}  // namespace

void ValueReader::Note(const ConfigurationEntry& entry, std::string problem) {
  m_mistakes.push_back({entry.line, entry.key, std::move(problem)});
}

bool ValueReader::ReadText(const ConfigurationEntry& entry, std::string& value) {
  if (entry.value.IsNull()) {
    Note(entry, "has no value");
    return false;
  }
  if (!entry.value.IsScalar()) {
    Note(entry, "must be a single value");
    return false;
  }
  const std::string& written = entry.value.Scalar();
  Expansion expansion = ExpandReferences(written, m_references);
  m_secrets.insert(expansion.values.begin(), expansion.values.end());
  if (!expansion.problem.empty()) {
    Note(entry, std::move(expansion.problem));
    return false;
  }
  if (HasReference(written)) {
    m_secrets.insert(expansion.text);
  }
  value = std::move(expansion.text);
  return true;
}

void ValueReader::AddShownForms(const ConfigurationEntry& entry,
                                const std::vector<std::string>& forms) {
  if (!entry.value.IsScalar() || !HasReference(entry.value.Scalar())) {
    return;
  }
  for (const std::string& form : forms) {
    if (entry.value.Scalar().find(form) == std::string::npos) {
      m_secrets.insert(form);
    }
  }
}

bool ValueReader::ReadTextWithoutReferences(const ConfigurationEntry& entry, std::string& value) {
  if (entry.value.IsScalar() && HasReference(entry.value.Scalar())) {
    Note(entry, "must be written out: what comes from a reference is hidden in messages");
    return false;
  }
  return ReadText(entry, value);
}

std::string ValueReader::Quote(const ConfigurationEntry& entry, const std::string& value) const {
  const bool isHidden = entry.value.IsScalar() && HasReference(entry.value.Scalar());
  return isHidden ? "(hidden)" : "\"" + value + "\"";
}

bool ValueReader::ReadPath(const ConfigurationEntry& entry, std::string& value) {
  std::string text;
  if (!ReadText(entry, text)) {
    return false;
  }
  if (text.empty() || HasControlCharacter(text)) {
    Note(entry, text.empty() ? "is empty; a path is needed" : "holds a control character");
    return false;
  }
  AddShownForms(entry, GetShownFormsOfPath(text));
  value = std::move(text);
  return true;
}

void ValueReader::ReadFlag(const ConfigurationEntry& entry, bool& value) {
  std::string text;
  if (!ReadText(entry, text)) {
    return;
  }
  if (text != "true" && text != "false") {
    Note(entry, Quote(entry, text) + " is neither true nor false");
    return;
  }
  value = text == "true";
}

void ValueReader::ReadLevel(const ConfigurationEntry& entry, std::string& value) {
  static const std::vector<std::string> kLevels{"debug", "info", "warn", "error", "off"};
  std::string text;
  if (!ReadText(entry, text)) {
    return;
  }
  if (std::find(kLevels.begin(), kLevels.end(), text) == kLevels.end()) {
    Note(entry, Quote(entry, text) + " is no level; one of these is needed: " + Join(kLevels));
    return;
  }
  value = std::move(text);
}

void ValueReader::ReadSize(const ConfigurationEntry& entry, std::uint64_t& value) {
  std::string text;
  if (!ReadText(entry, text)) {
    return;
  }
  if (const auto size = ParseSize(text)) {
    value = *size;
  } else {
    Note(entry, Quote(entry, text) + " is not a size such as 10GiB, 512KiB or 4096");
  }
}

void ValueReader::ReadSize(const ConfigurationEntry& entry, std::uint64_t lowest,
                           std::uint64_t highest, std::size_t& value) {
  std::uint64_t size = value;
  ReadSize(entry, size);
  if (size < lowest || size > highest) {
    const bool isHidden = HasReference(entry.value.Scalar());
    Note(entry, "is out of range: " + (isHidden ? "(hidden)" : std::to_string(size)) +
                    " bytes are not " + std::to_string(lowest) + " to " + std::to_string(highest));
    return;
  }
  value = static_cast<std::size_t>(size);
}

void ValueReader::ReadCount(const ConfigurationEntry& entry, std::uint64_t lowest,
                            std::uint64_t highest, std::size_t& value) {
  std::string text;
  if (!ReadText(entry, text)) {
    return;
  }
  const auto number = ParseWholeNumber(text);
  if (!number || *number < lowest || *number > highest) {
    Note(entry, Quote(entry, text) + " is not a whole number from " + std::to_string(lowest) +
                    " to " + std::to_string(highest));
    return;
  }
  value = static_cast<std::size_t>(*number);
}

void ValueReader::ReadDuration(const ConfigurationEntry& entry, std::chrono::milliseconds lowest,
                               std::chrono::milliseconds highest,
                               std::chrono::milliseconds& value) {
  std::string text;
  if (!ReadText(entry, text)) {
    return;
  }
  const auto duration = ParseDuration(text);
  if (!duration) {
    Note(entry, Quote(entry, text) + " is not a duration such as 30s, 500ms or 5m");
  } else if (*duration < lowest || *duration > highest) {
    const bool isHidden = HasReference(entry.value.Scalar());
    Note(entry, "is out of range: " + (isHidden ? "(hidden)" : text) + " is not " +
                    DurationText(lowest) + " to " + DurationText(highest));
  } else {
    value = *duration;
  }
}

std::vector<ConfigurationEntry> ValueReader::ReadList(const ConfigurationEntry& entry,
                                                      bool mayStandAlone) {
  std::vector<ConfigurationEntry> elements;
  if (!entry.value.IsSequence()) {
    if (mayStandAlone) {
      elements.push_back(entry);
    } else {
      Note(entry, entry.value.IsNull() ? "has no value" : "must be a list");
    }
    return elements;
  }
  for (const YAML::Node& element : entry.value) {
    elements.push_back({element, element.IsNull() ? entry.line : LineOf(element, entry.line),
                        entry.key + "[" + std::to_string(elements.size()) + "]"});
  }
  return elements;
}

MapReader::MapReader(const ConfigurationEntry& entry, ValueReader& reader)
    : m_entry(entry), m_reader(reader), m_isMap(entry.value.IsMap()) {
  if (!m_isMap) {
    m_reader.Note(entry, entry.value.IsNull() ? "has no value" : "must be a map of keys to values");
    return;
  }
  for (const auto& pair : entry.value) {
    Add(pair.first, pair.second);
  }
}

void MapReader::Add(const YAML::Node& key, const YAML::Node& value) {
  const int keyLine = LineOf(key, m_entry.line);
  if (!key.IsScalar()) {
    m_reader.Note({key, keyLine, m_entry.key}, "has a key that is not plain text");
    return;
  }
  const std::string& name = key.Scalar();
  // Paths of keys are kept for every value below.
  if (name.size() > kLongestKey) {
    m_reader.Note({key, keyLine, m_entry.key},
                  "has a key that is longer than " + std::to_string(kLongestKey) + " bytes");
    return;
  }
  ConfigurationEntry added{value, keyLine, m_entry.key.empty() ? name : m_entry.key + "." + name};
  const auto [position, isNew] = m_positions.emplace(name, m_keys.size());
  if (!isNew) {
    const int first = m_keys[position->second].second.line;
    m_reader.Note(added,
                  "stands here a second time; the first is in line " + std::to_string(first));
    return;
  }
  m_keys.emplace_back(name, std::move(added));
}

std::optional<ConfigurationEntry> MapReader::Find(const std::string& key) {
  m_known.push_back(key);
  const auto position = m_positions.find(key);
  if (position == m_positions.end()) {
    return std::nullopt;
  }
  return m_keys[position->second].second;
}

std::optional<ConfigurationEntry> MapReader::Require(const std::string& key) {
  auto entry = Find(key);
  if (!entry && m_isMap) {
    m_reader.Note({YAML::Node(), m_entry.line, m_entry.key.empty() ? key : m_entry.key + "." + key},
                  "is missing");
  }
  return entry;
}

void MapReader::RefuseOthers() {
  for (const auto& [name, entry] : m_keys) {
    if (std::find(m_known.begin(), m_known.end(), name) == m_known.end()) {
      m_reader.Note(entry, "is not known here; known are: " + Join(m_known));
    }
  }
}

}  // namespace OrloAgent
