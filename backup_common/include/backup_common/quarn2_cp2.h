// The program's entry point.
#pragma once

// Parses the command line and runs the command that it names. Returns 0 after the command has
// returned. Exceptions of the command pass through.
int tovmain(int argc, char** argv);
