#include "host/SpaceTree.h"

#include <sys/stat.h>

#include <algorithm>

#include "platform/TreeWalker.h"

namespace host {

namespace {

class Measure final : public platform::WalkVisitor {
 public:
  Measure(std::int64_t keep, std::vector<ReadError>* errors) : keep_(keep), errors_(errors) {
    stack_.emplace_back();
    stack_.back().folder = true;
  }

  void entry(const std::string&, std::string_view name, const struct stat& status) override {
    if (!S_ISREG(status.st_mode)) return;
    SpaceNode& folder = stack_.back();
    folder.size += status.st_size;
    if (status.st_size >= keep_) {
      folder.children.push_back(SpaceNode{std::string(name), status.st_size, false, 0, {}});
    } else {
      other_.back() += status.st_size;
      ++smaller_.back();
    }
  }
  bool enterFolder(const std::string&, std::string_view name, const struct stat&) override {
    SpaceNode node;
    node.name = name;
    node.folder = true;
    stack_.push_back(std::move(node));
    other_.push_back(0);
    smaller_.push_back(0);
    return true;
  }
  void leftFolder(int, const std::string&, std::string_view) override {
    if (stack_.size() <= 1) return;  // the root: finished by `take`
    SpaceNode node = close();
    SpaceNode& parent = stack_.back();
    parent.size += node.size;
    if (node.size >= keep_) {
      parent.children.push_back(std::move(node));
    } else {
      other_.back() += node.size;
      ++smaller_.back();
    }
  }
  void error(const std::string& path, int code) override {
    if (errors_) errors_->push_back({path, code});
  }

  SpaceNode take(const std::string& root) {
    // A stopped walk leaves folders open: each goes into the one above it as it is.
    while (stack_.size() > 1) leftFolder(-1, "", "");
    SpaceNode node = close();
    node.name = root;
    return node;
  }

 private:
  // The folder on top, its smaller items summed and its children largest first.
  SpaceNode close() {
    SpaceNode node = std::move(stack_.back());
    stack_.pop_back();
    if (smaller_.back() > 0) {
      node.children.push_back(SpaceNode{"", other_.back(), false, smaller_.back(), {}});
    }
    other_.pop_back();
    smaller_.pop_back();
    std::stable_sort(node.children.begin(), node.children.end(),
                     [](const auto& a, const auto& b) { return a.size > b.size; });
    return node;
  }

  std::int64_t keep_;
  std::vector<ReadError>* errors_;
  std::vector<SpaceNode> stack_;
  std::vector<std::int64_t> other_{0};
  std::vector<std::size_t> smaller_{0};
};

}  // namespace

SpaceNode measureSpace(const std::string& root, std::int64_t keep, const std::atomic<bool>* stop,
                       std::vector<ReadError>* errors) {
  Measure measure(keep, errors);
  platform::WalkOptions options;
  options.stayOnFileSystem = true;
  options.stop = stop;
  platform::walkTree(root, measure, options);
  return measure.take(root);
}

nlohmann::json spaceJson(const SpaceNode& node) {
  nlohmann::json out{{"name", jsonText(node.name)}, {"size", node.size}};
  if (node.smaller > 0) out["smaller"] = node.smaller;
  if (node.folder) {
    nlohmann::json children = nlohmann::json::array();
    for (const auto& child : node.children) children.push_back(spaceJson(child));
    out["children"] = std::move(children);
  }
  return out;
}

}  // namespace host
