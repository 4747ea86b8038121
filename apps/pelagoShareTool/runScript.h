// runScript.h -- runs one helper script to its end.
#ifndef PELAGO_RUNSCRIPT_H
#define PELAGO_RUNSCRIPT_H

/*
 * Runs the program argv[0], an absolute path, with the NULL-terminated vector argv, and waits for
 * it without a time limit.  The program's standard output is our standard error, so that its text
 * never gets into the caller's protocol.  It inherits everything else, ignored signals included.
 *
 * Returns the program's exit code, 0 to 255.  Returns 1 also when the program could not be run,
 * after a message on standard error; when a signal ended it; and when its result was lost because
 * this process ignores SIGCHLD.
 */
int RunScript(const char *const argv[]);

#endif // PELAGO_RUNSCRIPT_H
