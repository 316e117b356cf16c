/* Opening the launcher's files without being fooled by what lies at their paths.
 *
 * The log lies in the world-writable /var/tmp and the configuration on a disc: a named
 * pipe there would hold an open for ever, a device would feed a reader without end, and
 * a symbolic or hard link would send the log's writes into someone else's file. */
#ifndef COMMON_PLAINFILE_H
#define COMMON_PLAINFILE_H

#include <fcntl.h>
#include <stdbool.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens path with the open(2) flags and the stdio mode only when it is a regular file,
 * or a directory if directoryToo; anything else, like a failed open, gives null. The open
 * never waits on a pipe or a device and never takes descriptor 0, 1 or 2. O_NOFOLLOW in
 * flags refuses a symbolic link; a file opened for writing is refused when it has more
 * than one link; O_TRUNC empties the file only once it has proved to be acceptable. */
FILE* OpenPlainFile(const char* path, int flags, const char* mode, bool directoryToo);

#ifdef __cplusplus
}
#endif

#endif
