#pragma once

namespace tarnwell {

/// The program `tarnwell`: runs the client, or one of the commands that talk to it.
/// Returns the exit status: 0 on success, 1 after a message on standard error.
int runCommandLine(int argc, char** argv);

}  // namespace tarnwell
