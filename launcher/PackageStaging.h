/* What the two install paths share: the staging step and the way commands are run. */
#ifndef LAUNCHER_PACKAGESTAGING_H
#define LAUNCHER_PACKAGESTAGING_H

#include <stdlib.h>

/* Puts the carried package at the staged path. With showProgress, a worker copies while
 * the main thread runs the progress window's modal loop; when no worker can be started,
 * or the window cannot be shown, the step still ends with the package copied.
 * funcName names the caller in the log. */
void StagePackage(bool showProgress, const char* funcName);

/* Runs a command line through the shell and waits for it. Its exit status is never consulted:
 * where a step's success matters, a presence test afterwards judges it. */
inline void RunShellCommand(const char* command) {
    int status = system(command);
    (void)status;
}

#endif
