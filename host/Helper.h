#pragma once

// Whether the privileged helper is installed, which versions, and whether it answers, as both
// hosts show it.

#include <functional>
#include <nlohmann/json.hpp>

namespace host {

// On the main queue: asks the helper on the socket in use for a ping (the connection's own limit
// of a few seconds applies) and calls `done` there with {"installed", "installed_version",
// "shipped_version", "answers"}.
void helperStatus(std::function<void(nlohmann::json)> done);

}  // namespace host
