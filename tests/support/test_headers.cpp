// Holds the compiled headers of the test programs.
