#pragma once

#include <yaml-cpp/yaml.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Agent/ConfigurationReader.h"

// The part of reading a configuration that does not know what the keys mean: maps, lists and typed
// values, each mistake noted with line and key, after which reading goes on.
namespace OrloAgent {

// A value with where it stands. `key` is its full path: "streams[0].source.listen".
struct ConfigurationEntry {
  YAML::Node value;
  int line = 1;
  std::string key;
};

// Notes mistakes and reads single values. What it is given outlives it.
class ValueReader {
 public:
  ValueReader(std::vector<ConfigurationMistake>& mistakes, const References& references,
              WindowsAgentCommon::Secrets& secrets)
      : m_mistakes(mistakes), m_references(references), m_secrets(secrets) {}

  void Note(const ConfigurationEntry& entry, std::string problem);

  // The entry's value as a mistake may show it: in quotes, or "(hidden)" if it comes from a
  // reference.
  std::string Quote(const ConfigurationEntry& entry, const std::string& value) const;

  // Messages show the entry's value in these forms, too. Those that come from a reference are
  // hidden as the value is; what is written out in the file is no secret.
  void AddShownForms(const ConfigurationEntry& entry, const std::vector<std::string>& forms);

  // For values that name things, which messages must be able to show.
  bool ReadTextWithoutReferences(const ConfigurationEntry& entry, std::string& value);

  // References are looked up. Each leaves `value` alone and notes a mistake when the entry does not
  // hold such a value.
  bool ReadText(const ConfigurationEntry& entry, std::string& value);
  bool ReadPath(const ConfigurationEntry& entry, std::string& value);
  void ReadFlag(const ConfigurationEntry& entry, bool& value);
  void ReadLevel(const ConfigurationEntry& entry, std::string& value);
  void ReadSize(const ConfigurationEntry& entry, std::uint64_t& value);
  void ReadSize(const ConfigurationEntry& entry, std::uint64_t lowest, std::uint64_t highest,
                std::size_t& value);
  void ReadCount(const ConfigurationEntry& entry, std::uint64_t lowest, std::uint64_t highest,
                 std::size_t& value);
  void ReadDuration(const ConfigurationEntry& entry, std::chrono::milliseconds lowest,
                    std::chrono::milliseconds highest, std::chrono::milliseconds& value);

  // The elements of a list, or, where a single element may stand without a list, that element.
  std::vector<ConfigurationEntry> ReadList(const ConfigurationEntry& entry, bool mayStandAlone);

 private:
  std::vector<ConfigurationMistake>& m_mistakes;
  const References& m_references;
  WindowsAgentCommon::Secrets& m_secrets;
};

// The keys of one map. Keys that are no plain text, and keys that stand there twice, are noted when
// it is made; keys that nobody asked for when RefuseOthers is called.
class MapReader {
 public:
  // A value that is no map is noted, and then the map is empty and IsMap is false.
  MapReader(const ConfigurationEntry& entry, ValueReader& reader);

  bool IsMap() const { return m_isMap; }

  // The key's value, or nothing if the key is not there.
  std::optional<ConfigurationEntry> Find(const std::string& key);

  // The same, and a key that is not there is a mistake.
  std::optional<ConfigurationEntry> Require(const std::string& key);

  // Every key in the order of the file, for maps whose keys are free.
  const std::vector<std::pair<std::string, ConfigurationEntry>>& GetAll() const { return m_keys; }

  // Notes every key that was not asked for, and says which could have been.
  void RefuseOthers();

 private:
  void Add(const YAML::Node& key, const YAML::Node& value);

  ConfigurationEntry m_entry;
  ValueReader& m_reader;
  bool m_isMap = false;
  std::vector<std::pair<std::string, ConfigurationEntry>> m_keys;
  // Where in m_keys a key stands: a file may hold very many.
  std::unordered_map<std::string, std::size_t> m_positions;
  std::vector<std::string> m_known;
};

}  // namespace OrloAgent
