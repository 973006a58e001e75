#include <cstdio>

#include "cli/Commands.h"
#include "web/Server.h"

namespace cli {

void addServeCommand(CLI::App& app) {
  auto* command = app.add_subcommand(
      "serve", "The web application: every capability in a browser, on this machine only");
  auto port = std::make_shared<int>(0);
  auto open = std::make_shared<bool>(false);
  command
      ->add_option("--port", *port, "Listen on PORT of 127.0.0.1 (default: one the system picks)")
      ->check(CLI::Range(0, 65535));
  command->add_flag("--open", *open, "Open the page in the desktop's browser");
  command->footer(
      "Prints the address to visit as the first line of standard output: it holds a token that\n"
      "only this run knows, and without which the server answers nothing. Ctrl-C or SIGTERM\n"
      "stops running scans and deletions cleanly and ends the server.");
  command->callback([=] {
    web::ServeOptions options;
    options.port = *port;
    options.open = *open;
    options.listening = [](const std::string& address) {
      std::printf("%s\n", address.c_str());
      std::fflush(stdout);
      std::fprintf(stderr, "ravelin serve: listening on 127.0.0.1 only; Ctrl-C stops it\n");
    };
    web::serve(options);
  });
}

}  // namespace cli
