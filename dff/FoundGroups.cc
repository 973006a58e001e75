#include "dff/FoundGroups.h"

#include <algorithm>
#include <cstring>

namespace dff {

namespace {

// Names are kept in blocks of this size; a longer one gets a block of its own.
constexpr std::size_t kBlockBytes = 256 * 1024;

}  // namespace

void FoundGroups::reserve(std::size_t groups, std::size_t members) {
  ends_.reserve(groups);
  members_.reserve(members);
}

const char* FoundGroups::keep(std::string_view text) {
  if (text.size() > blockFree_) {
    if (text.size() > kBlockBytes / 4) {
      auto& block = blocks_.emplace_back(new char[text.size()]);
      std::memcpy(block.get(), text.data(), text.size());
      return block.get();
    }
    blockAt_ = blocks_.emplace_back(new char[kBlockBytes]).get();
    blockFree_ = kBlockBytes;
  }
  char* at = blockAt_;
  std::memcpy(at, text.data(), text.size());
  blockAt_ += text.size();
  blockFree_ -= text.size();
  return at;
}

std::uint32_t FoundGroups::addFolder(std::string_view path) {
  folders_.emplace_back(path);
  return static_cast<std::uint32_t>(folders_.size() - 1);
}

void FoundGroups::addPath(std::string_view path, std::int64_t size,
                          std::optional<std::string_view> photoID) {
  if (photoID) photos_.emplace_back(members_.size(), *photoID);
  members_.push_back({keep(path), static_cast<std::uint32_t>(path.size()), kWholePath, size});
}

void FoundGroups::endGroup() { ends_.push_back(members_.size()); }

std::size_t FoundGroups::pathLength(std::size_t member) const {
  const Member& m = members_[member];
  return m.folder == kWholePath ? m.nameLength : folders_[m.folder].size() + 1 + m.nameLength;
}

void FoundGroups::appendPath(std::size_t member, std::string& out) const {
  const Member& m = members_[member];
  if (m.folder != kWholePath) out.append(folders_[m.folder]).append(1, '/');
  out.append(m.name, m.nameLength);
}

std::string FoundGroups::path(std::size_t member) const {
  std::string out;
  out.reserve(pathLength(member));
  appendPath(member, out);
  return out;
}

std::optional<std::string_view> FoundGroups::photoID(std::size_t member) const {
  auto found = std::lower_bound(photos_.begin(), photos_.end(), member,
                                [](const auto& photo, std::size_t at) { return photo.first < at; });
  if (found == photos_.end() || found->first != member) return std::nullopt;
  return found->second;
}

}  // namespace dff
