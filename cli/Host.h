#pragma once

// Conventions shared by every subcommand of the `ravelin` host: exit statuses, size arguments,
// progress on a terminal, Ctrl-C, and JSON that stays valid whatever bytes a path holds.

#include <atomic>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace cli {

enum ExitStatus : int { kSuccess = 0, kFailure = 1, kUsage = 2 };

// Thrown by a subcommand to end with a one-line message and an exit status.
struct CommandError {
  ExitStatus status;
  std::string message;
};

// Parses a size such as "4096", "10K", "10M", "1.5G", "2T" (powers of 1024, optional "B" or
// "iB") or "10MB", "1GB" (powers of 1000). Nothing for anything else, including negatives.
std::optional<std::int64_t> parseSize(std::string_view text);

// Text that is valid UTF-8 whatever `bytes` holds: valid sequences stay, each invalid byte
// becomes the four characters "\xNN".
std::string utf8Safe(std::string_view bytes);

// Text for a person's terminal: as `utf8Safe`, with control characters (a newline in a file name)
// written as "\n", "\t" or "\xNN" so that one path stays on one line.
std::string displayText(std::string_view bytes);

// A JSON string value for a path or name from the disk.
inline nlohmann::json jsonText(std::string_view bytes) { return utf8Safe(bytes); }

// One line of progress on standard error, redrawn in place, shown only when standard error is a
// terminal. Used from the main queue only.
class StatusLine {
 public:
  StatusLine();
  ~StatusLine();
  bool enabled() const { return enabled_; }
  void show(std::string_view text);
  void clear();

 private:
  bool enabled_;
  bool shown_ = false;
};

// Catches SIGINT and SIGTERM while alive so that a long search can stop cleanly and print what it
// settled. A second Ctrl-C ends the process at once.
class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  bool interrupted() const;
};

}  // namespace cli

namespace cli {

// Sends the process's standard output to /dev/null while alive. Library calls that print their
// own diagnostics (the controller client says when there is no controller) must not mix them
// into a report or a JSON document.
class SilencedStdout {
 public:
  SilencedStdout();
  ~SilencedStdout();
  SilencedStdout(const SilencedStdout&) = delete;
  SilencedStdout& operator=(const SilencedStdout&) = delete;

 private:
  int saved_ = -1;
};

}  // namespace cli
