#pragma once

#include <istream>
#include <ostream>

namespace tarnwell::service {

/// The program: reads the command line and runs one command. The process's exit status: 0, or 1 after a
/// message on `err`. `serve` returns when SIGTERM or SIGINT has come and the server has stopped.
int runCommand(int argc, const char* const* argv, std::istream& in, std::ostream& out, std::ostream& err);

}  // namespace tarnwell::service
