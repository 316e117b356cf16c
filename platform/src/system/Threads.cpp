/* The Mac's answer to whether the caller runs on the main thread. */
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

/* The main thread is the one whose thread id is the process id. */
int pthread_main_np(void) {
    return static_cast<pid_t>(syscall(SYS_gettid)) == getpid() ? 1 : 0;
}
