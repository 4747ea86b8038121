// runScript.h -- runs one helper script to its end.
#ifndef PELAGO_RUNSCRIPT_H
#define PELAGO_RUNSCRIPT_H

/*
 * Runs the program argv[0], an absolute path, with the NULL-terminated vector argv, and waits for
 * it without a time limit.  What it writes to its standard output goes to our standard error, so
 * that it never gets into the caller's protocol; it inherits everything else, ignored signals
 * included.
 *
 * Returns its exit code, 0 to 255; 1 when it could not be run, which is told of on standard error,
 * when a signal ended it, or when its result was lost because the process ignores SIGCHLD.
 */
int RunScript(const char *const argv[]);

#endif // PELAGO_RUNSCRIPT_H
