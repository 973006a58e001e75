#pragma once

// `ravelin serve`: the web application on the loopback interface. The HTTP library's threads
// take requests; everything that touches the library's finders and deleters is posted to the
// main queue, which the calling thread drains until Ctrl-C or SIGTERM.

#include <functional>
#include <string>

namespace web {

struct ServeOptions {
  int port = 0;  // 0: the kernel picks one
  bool open = false;
  // Called once the server listens, with the address to visit (token included).
  std::function<void(const std::string& address)> listening;
};

// Serves until Ctrl-C or SIGTERM, then stops running jobs and returns. Throws a
// `host::CommandError` when it can't listen.
void serve(const ServeOptions& options);

}  // namespace web
