// The source of the test programs' precompiled header (cmake/TernHelpers.cmake); it has no code.
