#pragma once

// The groups of a search as they travel from the engine to a host: a few flat arrays instead of
// an object per member. A member's path is the path of its folder, kept once for all the members
// of that folder, and its own name, kept in blocks of text that are freed whole. A search of a
// million files hands over a million names, not a million paths.

#include <cstdint>
#include <memory>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dff {

class FoundGroups {
 public:
  FoundGroups() = default;
  FoundGroups(FoundGroups&&) = default;
  FoundGroups& operator=(FoundGroups&&) = default;
  FoundGroups(const FoundGroups&) = delete;
  FoundGroups& operator=(const FoundGroups&) = delete;

  // Building, group by group: members are added to the open group and `endGroup` closes it.
  // `reserve` only saves growing the arrays.
  void reserve(std::size_t groups, std::size_t members);
  // A folder that holds members; its index is what `addKept` takes.
  std::uint32_t addFolder(std::string_view path);
  // Takes over a block of text, so that members may be named by views into it.
  void keepBlock(std::unique_ptr<char[]> block) { blocks_.push_back(std::move(block)); }
  // A member named `name` inside folder `folder`, its name in a block given to `keepBlock`.
  void addKept(std::uint32_t folder, std::string_view name, std::int64_t size) {
    members_.push_back({name.data(), static_cast<std::uint32_t>(name.size()), folder, size});
  }
  // A member given by its whole path, a picture of a photo library when `photoID` is given.
  void addPath(std::string_view path, std::int64_t size,
               std::optional<std::string_view> photoID = std::nullopt);
  void endGroup();

  std::size_t size() const { return ends_.size(); }
  bool empty() const { return ends_.empty(); }
  std::size_t memberCount() const { return members_.size(); }
  // The indices of the members of group `group`, in their order.
  std::ranges::iota_view<std::size_t, std::size_t> members(std::size_t group) const {
    return {group == 0 ? 0 : ends_[group - 1], ends_[group]};
  }

  std::string path(std::size_t member) const;
  void appendPath(std::size_t member, std::string& out) const;
  std::size_t pathLength(std::size_t member) const;
  std::int64_t fileSize(std::size_t member) const { return members_[member].size; }
  bool isPhoto(std::size_t member) const { return photoID(member).has_value(); }
  // The library's identifier of a picture; nothing for a file.
  std::optional<std::string_view> photoID(std::size_t member) const;

 private:
  static constexpr std::uint32_t kWholePath = UINT32_MAX;
  struct Member {
    const char* name;  // in `blocks_`
    std::uint32_t nameLength;
    std::uint32_t folder;  // index in `folders_`, or `kWholePath` when the name is the path
    std::int64_t size;
  };
  const char* keep(std::string_view text);

  std::vector<std::string> folders_;
  // The pictures among the members, by member index, with their identifiers: few, next to the
  // files a search meets.
  std::vector<std::pair<std::size_t, std::string>> photos_;
  std::vector<std::unique_ptr<char[]>> blocks_;
  std::size_t blockFree_ = 0;
  char* blockAt_ = nullptr;
  std::vector<Member> members_;
  std::vector<std::size_t> ends_;  // one past the last member of each group
};

}  // namespace dff
