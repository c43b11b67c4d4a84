// The program's entry point.
#pragma once

// Runs the command that the command line names. Returns 0 when the command has finished. Does not
// catch the command's exceptions.
int tovmain(int argc, char** argv);
