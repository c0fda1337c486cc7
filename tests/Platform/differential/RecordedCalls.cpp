#include "tests/Platform/differential/RecordedCalls.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace Differential {

namespace {

std::vector<std::string> LinesOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("can't read " + path.string());
  }
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line[0] != '#') {
      lines.push_back(line);
    }
  }
  return lines;
}

std::vector<std::string> FieldsOf(const std::string& line) {
  std::vector<std::string> fields;
  std::istringstream stream(line);
  for (std::string field; std::getline(stream, field, '\t');) {
    fields.push_back(field);
  }
  return fields;
}

bool Covers(const Difference& difference, const std::string& name, const std::string& windows,
            const std::string& here) {
  return Matches(difference.cases, name) && Matches(difference.windows, windows) &&
         Matches(difference.here, here);
}

}  // namespace

Recorded ReadRecord(const std::filesystem::path& file) {
  Recorded recorded;
  for (const std::string& line : LinesOf(file)) {
    const std::size_t tab = line.find('\t');
    if (tab == std::string::npos ||
        !recorded.emplace(line.substr(0, tab), line.substr(tab + 1)).second) {
      throw std::runtime_error("no line of a record, or a case that comes twice: " + line);
    }
  }
  return recorded;
}

std::vector<Zone> ZonesOf(const Recorded& recorded) {
  const std::string group = "zone ";
  const std::string type = "ok 3 ";
  std::vector<Zone> zones;
  for (auto line = recorded.lower_bound(group); line != recorded.end(); ++line) {
    if (!line->first.starts_with(group) || !line->second.starts_with(type)) {
      break;
    }
    Zone zone{line->first.substr(group.size()), {}};
    for (std::size_t index = 0; index < zone.record.size(); ++index) {
      zone.record[index] = static_cast<std::uint8_t>(
          std::stoul(line->second.substr(type.size() + 2 * index, 2), nullptr, 16));
    }
    zones.push_back(zone);
  }
  return zones;
}

std::vector<Difference> ReadDifferences(const std::filesystem::path& file) {
  std::vector<Difference> differences;
  for (const std::string& line : LinesOf(file)) {
    const std::vector<std::string> fields = FieldsOf(line);
    if (fields.size() != 5) {
      throw std::runtime_error("not five fields: " + line);
    }
    differences.push_back({fields[1], fields[2], fields[3], std::stoul(fields[0]), fields[4]});
  }
  return differences;
}

bool Matches(std::string_view pattern, std::string_view text) {
  std::size_t star = std::string_view::npos;
  std::size_t resume = 0;
  std::size_t position = 0;
  for (std::size_t index = 0; index < text.size();) {
    if (position < pattern.size() && pattern[position] == '*') {
      star = position++;
      resume = index;
    } else if (position < pattern.size() && pattern[position] == text[index]) {
      ++position;
      ++index;
    } else if (star != std::string_view::npos) {
      position = star + 1;
      index = ++resume;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', position) == std::string_view::npos;
}

std::vector<std::string> Compare(const std::string& group, const Recorded& recorded,
                                 const Record& here, const std::vector<Difference>& differences) {
  std::vector<std::string> complaints;
  std::vector<std::size_t> covered(differences.size());
  std::map<std::string, bool> seen;
  for (const Line& line : here) {
    seen[line.name] = true;
    const auto entry = recorded.find(line.name);
    if (entry == recorded.end()) {
      complaints.push_back("not recorded: " + line.name);
      continue;
    }
    if (entry->second == line.result) {
      continue;
    }
    std::size_t index = 0;
    while (index < differences.size() &&
           !Covers(differences[index], line.name, entry->second, line.result)) {
      ++index;
    }
    if (index == differences.size()) {
      complaints.push_back(line.name + "\n  Windows: " + entry->second +
                           "\n  here:    " + line.result);
    } else {
      ++covered[index];
    }
  }
  const std::string prefix = group + " ";
  for (auto entry = recorded.lower_bound(prefix);
       entry != recorded.end() && entry->first.starts_with(prefix); ++entry) {
    if (!seen.contains(entry->first)) {
      complaints.push_back("recorded, and not made here: " + entry->first);
    }
  }
  for (std::size_t index = 0; index < differences.size(); ++index) {
    const Difference& difference = differences[index];
    if (difference.cases.starts_with(prefix) && covered[index] != difference.count) {
      complaints.push_back("the difference \"" + difference.cases + "\" covers " +
                           std::to_string(covered[index]) + " cases, not " +
                           std::to_string(difference.count));
    }
  }
  return complaints;
}

}  // namespace Differential
