/* The exit status of the kit's checks, which scripts/make-disc reads: a disc is made after
 * warnings, not after an error. */
#ifndef KIT_CHECK_STATUS_H
#define KIT_CHECK_STATUS_H

constexpr int kClean = 0;      /* nothing to report */
constexpr int kWarnings = 1;   /* the disc works, but not as the vendor may think */
constexpr int kUnreadable = 2; /* missing, unreadable or failing every user: no disc */
constexpr int kUsage = 3;

#endif
