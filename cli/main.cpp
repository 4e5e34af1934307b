// Entry point of `tarv`, the command-line face of the search kernel.

#include "cli/command_line.h"

int main(int argc, char** argv) { return tarv::cli::runCommandLine(argc, argv); }
