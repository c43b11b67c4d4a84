// The source of the library that compiles the shared headers of the test programs.
