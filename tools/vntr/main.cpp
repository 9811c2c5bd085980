// vntr: the library's command line.
#include <CLI/CLI.hpp>
#include <iostream>

#include "Commands.hpp"

int main(int argc, char** argv) {
  CLI::App app{"vntr: fire, inspect and demonstrate VNTRTagManager"};
  app.require_subcommand(1);
  vntr::cli::DemoOptions demo;
  auto* demoCommand = app.add_subcommand("demo", "Run the whole pipeline against a local server");
  demoCommand->add_option("--events", demo.events, "Events to fire")->check(CLI::Range(1, 10'000'000));
  demoCommand->add_option("--threads", demo.threads, "Calling threads")->check(CLI::Range(1, 64));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "vntr: " << e.what() << "\n";
    return 2;
  }
  if (demoCommand->parsed()) return vntr::cli::runDemo(demo);
  return 2;
}
