// wrapped.h -- programs as files: alone, or appended to a copy of the runner.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

// The bytes of a file; Refuse()s one that cannot be read.
std::vector<std::byte> ReadProgram(const char *path);

// Makes an executable of the runner and the program.
void WrapProgram(const char *program, const char *out);

// Returns the program that was appended to the running executable, if there is one.
std::optional<std::vector<std::byte>> WrappedProgram();

// The program that the runner was started with by name; calls that return the executable's path
// return this one's.
void SetStartedProgram(const char *path);
// nullptr: it is the running executable.
const char *StartedProgram();
