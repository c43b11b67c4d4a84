// The program's entry point.
#pragma once

// Reads the command line and runs the one command that it names. Returns 0 when the command has
// returned; what a command throws passes through.
int tovmain(int argc, char** argv);
