// refuse.h -- ends the runner when a program makes an unknown request.
#pragma once

// Writes one line on standard error and ends the process with status 126: a guess would hide a
// mistake of the program.
[[noreturn, gnu::format(printf, 1, 2)]] void Refuse(const char *format, ...);
