// The program's entry point.
#pragma once

// Runs the command that the command line names. Returns 0 when the command has finished. Exceptions
// of the command are not caught.
int tovmain(int argc, char** argv);
