#pragma once

// Conventions shared by every subcommand of the `ravelin` host: exit statuses, size arguments,
// progress on a terminal, Ctrl-C, and JSON that stays valid whatever bytes a path holds.

#include <atomic>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

enum ExitStatus : int { kSuccess = 0, kFailure = 1, kUsage = 2 };

// Thrown by a subcommand to end with a one-line message and an exit status.
struct CommandError {
  ExitStatus status;
  std::string message;
};

// Parses a size such as "4096", "10K", "10M", "1.5G", "2T" (powers of 1024, optional "B" or
// "iB") or "10MB", "1GB" (powers of 1000). Nothing for anything else, including negatives.
std::optional<std::int64_t> parseSize(std::string_view text);

// Text that is valid UTF-8 whatever `bytes` holds, and that gives the bytes back through
// `unescapeText`: valid sequences stay, a backslash becomes two backslashes and each invalid byte
// becomes the four characters "\xNN" (two hexadecimal digits, capitals).
std::string utf8Safe(std::string_view bytes);

// Text for a person's terminal: as `utf8Safe`, with control characters (a newline in a file name)
// also written as "\n", "\t" or "\xNN" so that one path stays on one line. Reversible as well.
std::string displayText(std::string_view bytes);

// The bytes that `utf8Safe` or `displayText` wrote as `text`; nothing when `text` holds an
// escape neither of them writes.
std::optional<std::string> unescapeText(std::string_view text);

// A JSON string value for a path or name from the disk.
inline nlohmann::json jsonText(std::string_view bytes) { return utf8Safe(bytes); }

// Runs the main queue until `done` or until Ctrl-C, looking at both at least every 50 ms, so that
// an interruption is seen even while nothing arrives on the queue. True when `done`.
class InterruptGuard;
bool runMainUntilDoneOrInterrupted(const std::function<bool()>& done,
                                   const InterruptGuard& interrupt);

// One line of progress on standard error, redrawn in place, shown only when standard error is a
// terminal. Used from the main queue only.
class StatusLine {
 public:
  StatusLine();
  // The text as it is drawn on a terminal `width` columns wide: at most `width - 1` characters,
  // the start of a long text cut off with "..."; nothing on a terminal narrower than 2 columns.
  // A width of 0 means unknown and is taken as 80.
  static std::string fitted(std::string_view text, std::size_t width);
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

}  // namespace host

namespace host {

// A path that couldn't be read while searching, and why.
struct ReadError {
  std::string path;
  int code = 0;
};

// The errors as JSON: [{"path": ..., "error": "Permission denied"}, ...].
nlohmann::json errorsJson(const std::vector<ReadError>& errors);

// Ends a command whose result was printed but isn't whole: a one-line message that names the
// count and the first few paths, exit status 1 (as du and find do).
[[noreturn]] void failIncomplete(const std::vector<ReadError>& errors);

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

}  // namespace host
