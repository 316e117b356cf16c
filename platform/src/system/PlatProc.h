/* Reading the process table of /proc, for the Process Manager and sysctl.
 * The root is a parameter so that tests can point the queries at a fixture tree. */
#ifndef PLATFORM_PLATPROC_H
#define PLATFORM_PLATPROC_H

#include <string>
#include <sys/types.h>
#include <vector>

/* The folder read as /proc; null restores "/proc". */
void PlatSetProcRoot(const char* root);

/* The numeric entries of the root, in ascending order. */
std::vector<pid_t> PlatProcListPids();

/* What /proc/<pid>/stat tells, the fields sysctl reports. */
struct PlatProcStat {
    char state = '?';
    pid_t ppid = 0;
    pid_t pgrp = 0;
    int ttyNumber = 0;
    pid_t ttyProcessGroup = 0;
    long nice = 0;
};
bool PlatProcReadStat(pid_t pid, PlatProcStat& stat);

/* The process runs as the calling user: its /proc folder is the user's. (The kernel gives
 * a process that may not be looked into, setuid ones among them, to root.) */
bool PlatProcIsTheUsers(pid_t pid);

/* The kernel's command name (/proc/<pid>/comm, without its line feed). */
bool PlatProcCommandName(pid_t pid, std::string& name);

/* The file name of the process's executable: from /proc/<pid>/exe, or when that
 * link cannot be read (another user's process), from the first argument. False
 * for processes without an executable, such as kernel threads. */
bool PlatProcExecutableName(pid_t pid, std::string& name);

#endif
