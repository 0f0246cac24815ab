#include "run.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "check_command.h"
#include "compare_command.h"
#include "demo_command.h"
#include "exit_status.h"
#include "lumo/version.h"
#include "server_command.h"

namespace lumo::cli {

int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  CLI::App app("Lumo: visual regression tests of app screens", "lumo");
  app.require_subcommand(1);
  app.set_version_flag("--version", fmt::format("lumo {}", kVersion));
  CheckCommand check(app);
  CompareCommand compare(app);
  ServerCommand server(app);
  DemoCommand demo(app);

  std::string command = "lumo";
  try {
    // Caught here because CLI11 would only say that a subcommand is required.
    if (!args.empty() && !args.front().starts_with('-') && args.front() != "check" &&
        args.front() != "compare" && args.front() != "server" && args.front() != "demo") {
      throw UsageError(
          fmt::format("unknown command \"{}\": use check, compare, server or demo", args.front()));
    }
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    app.parse(reversed);
    if (check.selected()) {
      command = "lumo check";
      return runCheck(check.options(), out, err);
    }
    if (compare.selected()) {
      command = "lumo compare";
      return runCompare(compare.options(), out, err);
    }
    if (server.selected()) {
      command = "lumo server";
      return runServer(server.options(), out, err);
    }
    command = "lumo demo";
    return runDemo(demo.options(), out, err);
  } catch (const CLI::Success& e) {
    return app.exit(e, out, err);  // --help: the usage of the command asked about
  } catch (const CLI::ParseError& e) {
    fmt::print(err, "{}: {}\n", command, e.what());
    return kExitUsage;
  } catch (const UsageError& e) {
    fmt::print(err, "{}: {}\n", command, e.what());
    return kExitUsage;
  }
}

int run(int argc, char** argv) {
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    args.emplace_back(argv[i]);
  }
  return run(args, std::cout, std::cerr);
}

}  // namespace lumo::cli
