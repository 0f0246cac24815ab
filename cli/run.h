#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace lumo::cli {

// The `lumo` command: `check`, `server` or `demo`. `args` are the arguments after the program
// name; results go to `out`, errors to `err` as one line each. Returns the ExitStatus; bad
// arguments give kExitUsage before anything is sent.
int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// The same for main(): argv[1..] on std::cout and std::cerr.
int run(int argc, char** argv);

}  // namespace lumo::cli
