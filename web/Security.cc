#include "web/Security.h"

#include <sys/random.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <stdexcept>

namespace web {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace

std::string newToken() {
  std::uint8_t bytes[32];
  std::size_t got = 0;
  while (got < sizeof(bytes)) {
    ssize_t n = ::getrandom(bytes + got, sizeof(bytes) - got, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error("no random bytes from the kernel");
    }
    got += static_cast<std::size_t>(n);
  }
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  std::uint32_t buffer = 0;
  int bits = 0;
  for (std::uint8_t byte : bytes) {
    buffer = (buffer << 8) | byte;
    bits += 8;
    while (bits >= 6) {
      bits -= 6;
      out += kAlphabet[(buffer >> bits) & 0x3f];
    }
  }
  if (bits > 0) out += kAlphabet[(buffer << (6 - bits)) & 0x3f];
  return out;
}

bool sameToken(std::string_view given, std::string_view token) {
  if (given.size() != token.size() || token.empty()) return false;
  unsigned char difference = 0;
  for (std::size_t i = 0; i < token.size(); ++i) {
    difference |= static_cast<unsigned char>(given[i] ^ token[i]);
  }
  return difference == 0;
}

bool hostAllowed(std::string_view host, int port) {
  const std::string suffix = ":" + std::to_string(port);
  if (host.size() <= suffix.size() || host.substr(host.size() - suffix.size()) != suffix) {
    return false;
  }
  std::string_view name = host.substr(0, host.size() - suffix.size());
  return name == "127.0.0.1" || name == "[::1]" || equalsIgnoringCase(name, "localhost");
}

bool originAllowed(std::string_view origin, int port) {
  constexpr std::string_view scheme = "http://";
  if (origin.size() <= scheme.size() || !equalsIgnoringCase(origin.substr(0, 7), scheme)) {
    return false;
  }
  return hostAllowed(origin.substr(scheme.size()), port);
}

bool isJsonType(std::string_view contentType) {
  std::string_view media = trimmed(contentType.substr(0, contentType.find(';')));
  return equalsIgnoringCase(media, "application/json");
}

std::string cookieName(int port) { return "ravelin_" + std::to_string(port); }

std::optional<std::string> cookieValue(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    std::size_t end = header.find(';');
    std::string_view pair = trimmed(header.substr(0, end));
    std::size_t equals = pair.find('=');
    if (equals != std::string_view::npos && pair.substr(0, equals) == name) {
      return std::string(pair.substr(equals + 1));
    }
    if (end == std::string_view::npos) break;
    header.remove_prefix(end + 1);
  }
  return std::nullopt;
}

std::optional<std::string> bearerToken(std::string_view header) {
  header = trimmed(header);
  if (header.size() < 7 || !equalsIgnoringCase(header.substr(0, 7), "bearer ")) return std::nullopt;
  return std::string(trimmed(header.substr(7)));
}

}  // namespace web
