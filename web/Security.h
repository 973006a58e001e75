#pragma once

// The checks every request to the web host passes before anything acts on it. Each is a pure
// function of the request's text, so that each rule can be read, and tested, on its own.

#include <optional>
#include <string>
#include <string_view>

namespace web {

// 32 random bytes from the kernel, written in base64url without padding (43 characters).
std::string newToken();

// True when `given` is `token`, compared in a time that doesn't depend on where they differ.
bool sameToken(std::string_view given, std::string_view token);

// True when a `Host` header names this server: "127.0.0.1:PORT", "localhost:PORT" or
// "[::1]:PORT", in any case. Anything else (another name that resolves here, as a page rebinding
// its own name would send, or a missing port) is refused.
bool hostAllowed(std::string_view host, int port);

// True when an `Origin` header is this server's own: "http://" and one of the names above.
bool originAllowed(std::string_view origin, int port);

// True when a `Content-Type` header is JSON's ("application/json", parameters allowed).
bool isJsonType(std::string_view contentType);

// The name of the cookie holding the token: one per port, since cookies aren't kept apart by
// port and two servers may run at once.
std::string cookieName(int port);

// The value of cookie `name` in a `Cookie` header, if it is there.
std::optional<std::string> cookieValue(std::string_view header, std::string_view name);

// The token of an `Authorization: Bearer TOKEN` header, if it is one.
std::optional<std::string> bearerToken(std::string_view header);

}  // namespace web
