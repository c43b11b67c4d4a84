// The size control server.
#pragma once

#include "kro/kro_args.h"

// --server: makes sure that the storage's size control server runs, and keeps this server alive
// until standard input closes.
void CommandServer(int argc, char** argv, kro_args::ResultPtr args);
