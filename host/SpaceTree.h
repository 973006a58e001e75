#pragma once

// Where a folder's space goes: one walk sums the regular files below each folder, and keeps the
// folders and files big enough to be seen, each folder's smaller ones summed into one node.

#include <atomic>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/Host.h"

namespace host {

struct SpaceNode {
  std::string name;
  std::int64_t size = 0;  // bytes of the regular files at or below it
  bool folder = false;
  std::size_t smaller = 0;          // for the node of smaller items: how many it sums
  std::vector<SpaceNode> children;  // largest first
};

// Walks `root` without following links or leaving its file system. A folder or file smaller
// than `keep` bytes is summed into its folder's node of smaller items. `stop` ends the walk
// early; what was summed so far is kept.
SpaceNode measureSpace(const std::string& root, std::int64_t keep, const std::atomic<bool>* stop,
                       std::vector<ReadError>* errors);

// {"name", "size", "children": [...]} for a folder, {"name", "size"} for a file, and
// {"name": "", "size", "smaller": N} for the smaller items of a folder.
nlohmann::json spaceJson(const SpaceNode& node);

}  // namespace host
