/* The BSD sysctl interface, for the two names the launcher asks: the process
 * table {CTL_KERN, KERN_PROC, KERN_PROC_ALL} and the kernel release
 * {CTL_KERN, KERN_OSRELEASE}. Records have the 64-bit Darwin layout. */
#ifndef _SYS_SYSCTL_H_
#define _SYS_SYSCTL_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CTL_KERN 1
#define KERN_OSRELEASE 2
#define KERN_PROC 14
#define KERN_PROC_ALL 0
#define MAXCOMLEN 16

/* One process as the kernel reports it. */
struct extern_proc {
    uint8_t p_un[16];
    void* p_vmspace;
    void* p_sigacts;
    int p_flag;
    char p_stat;
    pid_t p_pid;
    pid_t p_oppid;
    int p_dupfd;
    char* user_stack;
    void* exit_thread;
    int p_debugger;
    int sigwait;
    unsigned int p_estcpu;
    int p_cpticks;
    uint32_t p_pctcpu;
    void* p_wchan;
    char* p_wmesg;
    unsigned int p_swtime;
    unsigned int p_slptime;
    uint8_t p_realtimer[32];
    uint8_t p_rtime[16];
    uint64_t p_uticks;
    uint64_t p_sticks;
    uint64_t p_iticks;
    int p_traceflag;
    void* p_tracep;
    int p_siglist;
    void* p_textvp;
    int p_holdcnt;
    uint32_t p_sigmask;
    uint32_t p_sigignore;
    uint32_t p_sigcatch;
    unsigned char p_priority;
    unsigned char p_usrpri;
    char p_nice;
    char p_comm[MAXCOMLEN + 1];
    void* p_pgrp;
    void* p_addr;
    unsigned short p_xstat;
    unsigned short p_acflag;
    void* p_ru;
};

/* 648 bytes: the process (296 bytes, command name at byte 243), then its extra
 * data; the kernel's private records are opaque bytes here. */
struct kinfo_proc {
    struct extern_proc kp_proc;
    struct eproc {
        void* e_paddr;
        void* e_sess;
        union {
            uint8_t bytes[104];
            void* align;
        } e_pcred;
        uint8_t e_ucred[76];
        union {
            uint8_t bytes[64];
            void* align;
        } e_vm;
        pid_t e_ppid;
        pid_t e_pgid;
        short e_jobc;
        int32_t e_tdev;
        pid_t e_tpgid;
        void* e_tsess;
        char e_wmesg[8];
        int32_t e_xsize;
        short e_xrssize;
        short e_xccount;
        short e_xswrss;
        int32_t e_flag;
        char e_login[12];
        int32_t e_spare[4];
    } kp_eproc;
};

int sysctl(int* name, unsigned int namelen, void* oldp, size_t* oldlenp, void* newp, size_t newlen);

#ifdef __cplusplus
}
#endif

#endif
