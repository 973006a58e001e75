#include "host/Host.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/Dispatch.h"
#include "platform/Text.h"

namespace host {

std::optional<std::int64_t> parseSize(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (std::isdigit(static_cast<unsigned char>(text[i])) || text[i] == '.')) {
    ++i;
  }
  std::string number(text.substr(0, i));
  std::string unit(text.substr(i));
  if (number.empty() || number == "." || std::count(number.begin(), number.end(), '.') > 1) {
    return std::nullopt;
  }
  for (auto& c : unit) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));

  double multiplier = 1;
  if (!unit.empty()) {
    static const std::string kPrefixes = "KMGTPE";
    auto prefix = kPrefixes.find(unit[0]);
    if (unit == "B") {
      multiplier = 1;
    } else if (prefix == std::string::npos) {
      return std::nullopt;
    } else {
      std::string rest = unit.substr(1);
      double base;
      if (rest.empty() || rest == "IB") {
        base = 1024;
      } else if (rest == "B") {
        base = 1000;
      } else {
        return std::nullopt;
      }
      multiplier = std::pow(base, static_cast<double>(prefix + 1));
    }
  }
  double value = std::strtod(number.c_str(), nullptr) * multiplier;
  if (!std::isfinite(value) || value >= 9.2e18) return std::nullopt;
  return static_cast<std::int64_t>(std::llround(value));
}

std::string utf8Safe(std::string_view bytes) { return platform::escapedText(bytes); }

std::string displayText(std::string_view bytes) {
  std::string safe = utf8Safe(bytes);
  std::string out;
  out.reserve(safe.size());
  for (char c : safe) {
    unsigned char u = static_cast<unsigned char>(c);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (u < 0x20 || u == 0x7F) {
      out += fmt::format("\\x{:02X}", u);
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::optional<std::string> unescapeText(std::string_view text) {
  return platform::unescapedText(text);
}

bool runMainUntilDoneOrInterrupted(const std::function<bool()>& done,
                                   const InterruptGuard& interrupt) {
  while (!done() && !interrupt.interrupted()) {
    platform::runMainUntil([&] { return done() || interrupt.interrupted(); },
                           std::chrono::milliseconds(50));
  }
  // A Ctrl-C that came while the work was ending still counts: the user asked to stop, and the
  // answer must not depend on which of the two the main thread noticed first.
  return !interrupt.interrupted();
}

nlohmann::json errorsJson(const std::vector<ReadError>& errors) {
  nlohmann::json out = nlohmann::json::array();
  for (const auto& e : errors) {
    out.push_back({{"path", jsonText(e.path)}, {"error", std::strerror(e.code)}});
  }
  return out;
}

void failIncomplete(const std::vector<ReadError>& errors) {
  std::string message = fmt::format("incomplete: {} {} could not be read", errors.size(),
                                    errors.size() == 1 ? "path" : "paths");
  for (std::size_t i = 0; i < errors.size() && i < 3; ++i) {
    message += fmt::format("{} {} ({})", i == 0 ? ":" : ",", displayText(errors[i].path),
                           std::strerror(errors[i].code));
  }
  if (errors.size() > 3) message += ", ...";
  throw CommandError{kFailure, message};
}

StatusLine::StatusLine() : enabled_(::isatty(STDERR_FILENO) == 1) {}

StatusLine::~StatusLine() { clear(); }

std::string StatusLine::fitted(std::string_view text, std::size_t width) {
  if (width == 0) width = 80;
  if (width < 2) return "";
  const std::size_t room = width - 1;
  std::string line = displayText(text);
  // Columns are counted as characters: a display text is printable UTF-8.
  std::vector<std::size_t> starts;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if ((static_cast<unsigned char>(line[i]) & 0xC0) != 0x80) starts.push_back(i);
  }
  if (starts.size() <= room) return line;
  // Keep the end of a long path, which says most.
  if (room <= 3) return line.substr(starts[starts.size() - room]);
  return "..." + line.substr(starts[starts.size() - (room - 3)]);
}

void StatusLine::show(std::string_view text) {
  if (!enabled_) return;
  struct winsize size {};
  std::size_t width = 0;
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0) width = size.ws_col;
  std::string line = fitted(text, width);
  std::fprintf(stderr, "\r\033[K%s", line.c_str());
  std::fflush(stderr);
  shown_ = true;
}

void StatusLine::clear() {
  if (!enabled_ || !shown_) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  shown_ = false;
}

namespace {

std::atomic<int> gInterrupts{0};

void onSignal(int signal) {
  if (gInterrupts.fetch_add(1) >= 1) {
    // Second request: the user wants out now.
    ::signal(signal, SIG_DFL);
    ::raise(signal);
  }
}

}  // namespace

InterruptGuard::InterruptGuard() {
  gInterrupts = 0;
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

InterruptGuard::~InterruptGuard() {
  ::signal(SIGINT, SIG_DFL);
  ::signal(SIGTERM, SIG_DFL);
}

bool InterruptGuard::interrupted() const { return gInterrupts.load() > 0; }

}  // namespace host

namespace host {

SilencedStdout::SilencedStdout() {
  std::fflush(stdout);
  saved_ = ::dup(STDOUT_FILENO);
  int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null >= 0) {
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
}

SilencedStdout::~SilencedStdout() {
  std::fflush(stdout);
  if (saved_ >= 0) {
    ::dup2(saved_, STDOUT_FILENO);
    ::close(saved_);
  }
}

}  // namespace host
