/* POSIX threads, with the Mac's answer to whether the caller is the main thread. */
#ifndef PLATFORM_PTHREAD_H
#define PLATFORM_PTHREAD_H

#include_next <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero on the main thread: the thread whose id is the process id. */
int pthread_main_np(void);

#ifdef __cplusplus
}
#endif

#endif
