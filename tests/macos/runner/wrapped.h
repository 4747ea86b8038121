// wrapped.h -- programs as files: alone, or appended to a copy of the runner.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

// The bytes of a file; Refuse()s one that cannot be read.
std::vector<std::byte> ReadProgram(const char *path);

// Makes an executable of the runner and the program.
void WrapProgram(const char *program, const char *out);

// The program that was put into the running executable, if it is one of these.
std::optional<std::vector<std::byte>> WrappedProgram();

// A program that the runner was given by name: what is asked for the executable's path gets this
// one's.
void SetStartedProgram(const char *path);
// nullptr: it is the running executable.
const char *StartedProgram();
