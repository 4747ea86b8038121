/*
 * processes.h -- the processes of this host, read from /proc.  A pid is a decimal number as text.
 */
#ifndef PELAGO_HOST_PROCESSES_H
#define PELAGO_HOST_PROCESSES_H

#include <string>
#include <string_view>
#include <vector>

// Returns the content of a file that the kernel or Samba writes; empty when not all can be read.
std::string TextOf(const std::string &path);

// Returns the file name of the program that a process runs, without the folder, also after the file
// was replaced; the process's own name when the kernel does not show the program; empty when there
// is no such process.
std::string ProgramOf(const std::string &pid);
// Returns the pid of its parent; empty when there is no such process.
std::string ParentOf(const std::string &pid);

// Returns the names in a folder except those that begin with a dot; none when it cannot be read.
std::vector<std::string> EntriesOf(const std::string &folder);

// Returns whether the text consists of decimal digits, at least one.
bool IsNumber(const std::string &text);
// Returns the first word, up to a blank, a tab or a newline; empty when there is none.
std::string FirstWord(std::string_view text);

#endif // PELAGO_HOST_PROCESSES_H
