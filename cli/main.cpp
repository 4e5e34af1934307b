// Entry point of `tarv`, the command-line face of the search kernel.

#include "cli/command_line.h"
#include "cli/load_progress.h"

int main(int argc, char** argv) {
  // A fresh load of a large source takes seconds; on a terminal, say how far it is.
  tarv::cli::LoadProgressDisplay::installForStandardError();
  return tarv::cli::runCommandLine(argc, argv);
}
