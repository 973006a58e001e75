// Finds the duplicates below a folder and prints each group, one path per line and a blank line
// between groups: a host of Ravelin Core in a few lines. The library has no main loop of its
// own; its reports arrive on the main queue, which the host drains.
//
//   find-duplicates FOLDER

#include <chrono>
#include <cstdio>
#include <memory>

#include "dff/CoreDuplicateFileFinder.h"
#include "platform/Dispatch.h"

namespace {

class Printer final : public Core::DuplicateFileFinderDelegate {
 public:
  void duplicateFileFinderCurrent(const std::string&) override {}
  void duplicateFileFinderProgress(double) override {}
  void duplicateFileFinderCompleted(dff::FoundGroups groups) override {
    for (std::size_t g = 0; g < groups.size(); ++g) {
      for (std::size_t member : groups.members(g)) {
        std::printf("%s\t%lld\n", groups.path(member).c_str(),
                    static_cast<long long>(groups.fileSize(member)));
      }
      std::printf("\n");
    }
    done = true;
  }
  bool done = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: find-duplicates FOLDER\n");
    return 2;
  }
  auto printer = std::make_shared<Printer>();
  auto finder = Core::DuplicateFileFinder::create();
  finder->setRootFolderURLs({argv[1]});
  finder->setDelegate(printer);
  finder->start();
  platform::runMainUntil([&] { return printer->done; }, std::chrono::hours(1));
  return printer->done ? 0 : 1;
}
