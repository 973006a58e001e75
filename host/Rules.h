#pragma once

// The rule document as both hosts show it: how many rules of each kind, the nodes each location
// compiles to, the path strings shut out by others, and what serves one identifier.

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace host {

struct RulesReport {
  struct Served {
    std::int64_t id;
    std::string path;
    std::int64_t priority;
    std::string kind;
  };
  struct Shadowed {
    std::string key, path;
  };
  std::string source;
  std::size_t rules = 0;
  std::map<std::string, int> kinds;
  std::vector<std::pair<std::string, std::size_t>> nodes;  // location, nodes below it
  std::vector<Shadowed> shadowed;
  std::string forID;
  std::vector<Served> served, junk;  // for `forID`: the uninstaller's and the clean-up's

  // {"rules": {KIND: N}, "nodes": {LOCATION: N}, "shadowed": [{"key", "path"}], and with an
  // identifier "for": {"id", "nodes": [{"node", "path", "priority", "kind"}], "junk": [...]}}
  nlohmann::json json() const;
};

// Compiles `document` (named `source` in messages) against the current locations. A document
// that doesn't load is a `CommandError` of `kFailure` naming the source and the fault.
RulesReport readRules(const std::string& document, const std::string& source,
                      const std::string& forID);

}  // namespace host
