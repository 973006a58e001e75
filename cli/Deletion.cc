#include "cli/Deletion.h"

#include <fmt/format.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <optional>

#include "host/Host.h"
#include "platform/ByteCountFormatter.h"
#include "platform/Dispatch.h"

namespace cli {

namespace {

// Standard input read key by key while alive, when it is a terminal; the settings come back at
// the end.
class KeyReader {
 public:
  KeyReader() : enabled_(::isatty(STDIN_FILENO) == 1) {
    if (!enabled_ || ::tcgetattr(STDIN_FILENO, &saved_) != 0) {
      enabled_ = false;
      return;
    }
    termios raw = saved_;
    raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  ~KeyReader() {
    if (enabled_) ::tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
  }
  // A key pressed since the last look, if any.
  std::optional<char> key() {
    if (!enabled_) return std::nullopt;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (::poll(&input, 1, 0) <= 0) return std::nullopt;
    char c;
    return ::read(STDIN_FILENO, &c, 1) == 1 ? std::optional<char>(c) : std::nullopt;
  }

 private:
  bool enabled_;
  termios saved_{};
};

// Runs the job to its end with the progress line, pause (p) and Ctrl-C.
void runWithProgress(DeletionJob& job) {
  StatusLine status;
  auto redraw = [&] {
    status.show(fmt::format("{:3.0f}%{}  {}", job.progress() * 100,
                            job.paused() ? " (paused: p resumes)" : "", job.current()));
  };
  bool finished = false, stopped = false;
  InterruptGuard interrupt;
  KeyReader keys;
  job.start([&] { finished = true; }, redraw);
  while (!finished) {
    if (interrupt.interrupted() && !stopped) {
      stopped = true;
      job.stop();
    }
    if (auto key = keys.key(); key && (*key == 'p' || *key == 'P') && !stopped) {
      job.paused() ? job.resume() : job.pause();
      redraw();
    }
    platform::runMainUntil([&] { return finished; }, std::chrono::milliseconds(50));
  }
  status.clear();
}

}  // namespace

void confirmAndDelete(DeletionRequest given, bool yes, bool dryRun, bool json) {
  DeletionJob job(std::move(given));
  const DeletionRequest& request = job.request();
  const auto& sizes = job.sizes();

  // The plan, on standard error when the report itself is JSON, written in large pieces
  // (standard error writes each line at once otherwise).
  FILE* plan = json ? stderr : stdout;
  std::string text;
  auto line = [&](const std::string& one) {
    text += one;
    if (text.size() >= 65536) {
      std::fwrite(text.data(), 1, text.size(), plan);
      text.clear();
    }
  };
  for (const auto& path : request.kept) line(fmt::format("keep        {}\n", displayText(path)));
  for (const auto& [path, reason] : request.leftAlone) {
    line(fmt::format("left alone  {} ({})\n", displayText(path), reason));
  }
  for (std::size_t i = 0; i < request.paths.size(); ++i) {
    line(fmt::format("delete      {}  {}\n", displayText(request.paths[i]),
                     platform::formatByteCount(sizes[i])));
  }
  for (const auto& photo : request.photos) {
    line(fmt::format("delete      {}  [photo {}]\n", displayText(photo.file.url),
                     displayText(photo.id)));
  }
  line(fmt::format("{} items, {}{}\n", job.count(), platform::formatByteCount(job.total()),
                   dryRun ? " would be deleted (dry run: nothing was deleted)" : " to delete"));
  std::fwrite(text.data(), 1, text.size(), plan);
  std::fflush(plan);
  if (dryRun || job.count() == 0) {
    if (json) {
      std::puts(nlohmann::json{
          {"deleted", nlohmann::json::array()}, {"failed", nlohmann::json::array()}, {"bytes", 0}}
                    .dump()
                    .c_str());
    }
    return;
  }
  if (!yes) {
    if (::isatty(STDIN_FILENO) != 1) {
      throw CommandError{kUsage,
                         "nothing deleted: standard input is not a terminal, so give --yes to "
                         "delete without being asked"};
    }
    std::fprintf(stderr, "Delete these %zu items? [y/N] ", job.count());
    std::fflush(stderr);
    char answer[16] = {};
    if (std::fgets(answer, sizeof(answer), stdin) == nullptr ||
        (answer[0] != 'y' && answer[0] != 'Y')) {
      throw CommandError{kFailure, "nothing deleted"};
    }
  }

  runWithProgress(job);
  const auto& outcome = job.outcome();
  if (json) {
    writeOutcomeJson(outcome, [](std::string_view piece) {
      std::fwrite(piece.data(), 1, piece.size(), stdout);
    });
  } else {
    for (const auto& [path, reason] : outcome.failed) {
      std::printf("not deleted %s (%s)\n", displayText(path).c_str(), reason.c_str());
    }
    std::printf("%zu deleted, %zu not deleted, %s freed%s\n", outcome.deleted.size(),
                outcome.failed.size(), platform::formatByteCount(outcome.bytes).c_str(),
                outcome.stopped ? " (stopped)" : "");
  }
  if (!outcome.failed.empty()) {
    throw CommandError{kFailure,
                       fmt::format("{} of {} items were not deleted", outcome.failed.size(),
                                   outcome.failed.size() + outcome.deleted.size())};
  }
}

}  // namespace cli
