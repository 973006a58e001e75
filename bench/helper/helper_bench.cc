// Round trips to the privileged helper on a socket of its own: a ping, and measuring a tree of
// 100,000 entries through the helper against GetDirectorySize in the process.
//
//   helper_bench HELPER_BINARY [TREE_PARENT]
//
// The tree is made once under TREE_PARENT (by default /dev/shm, where files are made fast) and
// kept for later runs.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "helper/HelperConnection.h"
#include "monitor/DiskInfo.h"

namespace {

using Clock = std::chrono::steady_clock;

double medianMicroseconds(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return samples[samples.size() / 2];
}

void makeTree(const std::string& root) {
  if (std::filesystem::exists(root + "/.complete")) return;
  std::filesystem::remove_all(root);
  // 100 folders of 999 files and the folders themselves: 100,000 entries with the root's marker.
  for (int folder = 0; folder < 100; ++folder) {
    std::string path = root + "/d" + std::to_string(folder);
    std::filesystem::create_directories(path);
    for (int file = 0; file < 999; ++file) {
      std::ofstream(path + "/f" + std::to_string(file)) << std::string(file % 97, 'x');
    }
  }
  std::ofstream(root + "/.complete");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: helper_bench HELPER_BINARY [TREE_PARENT]\n");
    return 2;
  }
  const std::string parent = argc > 2 ? argv[2] : "/dev/shm";
  const std::string tree = parent + "/ravelin-bench-helper-tree";
  const std::string socket = parent + "/ravelin-bench-helper.sock";
  makeTree(tree);

  pid_t server = ::fork();
  if (server == 0) {
    ::execl(argv[1], argv[1], "--socket", socket.c_str(), "--allow-uid",
            std::to_string(::getuid()).c_str(), nullptr);
    ::_exit(127);
  }
  for (int i = 0; i < 500 && !std::filesystem::exists(socket); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  helper::setHelperSocket(socket);
  auto connection = helper::HelperConnection::create();
  if (!connection->connect(false)) {
    std::fprintf(stderr, "helper_bench: can't connect to %s\n", socket.c_str());
    return 1;
  }

  std::vector<double> pings;
  for (int i = 0; i < 1000; ++i) {
    std::promise<void> answered;
    auto start = Clock::now();
    connection->helper->test([&] { answered.set_value(); });
    answered.get_future().wait();
    pings.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }

  std::vector<double> throughHelper, inProcess;
  std::int64_t helperSize = 0, processSize = 0;
  for (int i = 0; i < 7; ++i) {
    std::promise<std::int64_t> measured;
    auto start = Clock::now();
    connection->helper->getDirectorySizeAt(tree,
                                           [&](std::int64_t size) { measured.set_value(size); });
    helperSize = measured.get_future().get();
    throughHelper.push_back(
        std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    start = Clock::now();
    processSize = monitor::GetDirectorySize(tree.c_str());
    inProcess.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  connection->close();
  ::kill(server, SIGTERM);
  ::waitpid(server, nullptr, 0);

  std::printf("ping round trip (median of 1000)            %8.1f us\n", medianMicroseconds(pings));
  std::printf("getDirectorySizeAt:with: 100,000 entries      %8.1f ms (size %lld)\n",
              medianMicroseconds(throughHelper) / 1000, static_cast<long long>(helperSize));
  std::printf("GetDirectorySize in process, same tree        %8.1f ms (size %lld)\n",
              medianMicroseconds(inProcess) / 1000, static_cast<long long>(processSize));
  std::printf("through the helper / in process               %8.2fx\n",
              medianMicroseconds(throughHelper) / medianMicroseconds(inProcess));
  return helperSize == processSize ? 0 : 1;
}
