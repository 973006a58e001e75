#pragma once

#include <optional>
#include <string_view>

namespace web {

// The bytes of the web application's file `name` ("/index.html", "/vendor/uPlot.min.css"), built
// into the program; nothing for any other name.
std::optional<std::string_view> asset(std::string_view name);

}  // namespace web
