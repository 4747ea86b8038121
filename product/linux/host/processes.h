/*
 * processes.h -- what /proc says of the processes of this host.
 */
#ifndef PELAGO_HOST_PROCESSES_H
#define PELAGO_HOST_PROCESSES_H

#include <string>
#include <string_view>
#include <vector>

// A file that the kernel or Samba writes; empty when it cannot be read whole.
std::string TextOf(const std::string &path);

// The program that a process runs, without its folder, also after its file was replaced, or what
// the process is called; empty when there is no such process.
std::string ProgramOf(const std::string &pid);
// The number of its parent; empty when there is no such process.
std::string ParentOf(const std::string &pid);

// The names in a folder, but for those that begin with a dot.
std::vector<std::string> EntriesOf(const std::string &folder);

bool IsNumber(const std::string &text);
std::string FirstWord(std::string_view text);

#endif // PELAGO_HOST_PROCESSES_H
