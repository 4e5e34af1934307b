#pragma once
// The `tarv` command line: reads the arguments, finds the configuration, runs
// one command and prints its result. Failures end the process through fail()
// with status 2; the return value is the status of a command that succeeded.

namespace tarv::cli {

int runCommandLine(int argc, const char* const* argv);

}  // namespace tarv::cli
