/* Removal of directory trees, and sleeping. */
#ifndef MWD_MISC_H
#define MWD_MISC_H

/*
 * Removes the directory `dirpath` with all below it, but neither what symbolic links lead to nor what is mounted there,
 * bind mounts too; directories above a mount stay. Returns 0, also when there is no such path; -1 when it cannot be
 * looked at and -2 when it is no directory, both after an error line; else the negative result of the walk, which ended
 * at the first entry that stays and shows it in a debug line at most. Safe to call again on what is left.
 */
int rm_fr(const char *dirpath);

/*
 * Sleeps for `ms` milliseconds with SIGINT, SIGTERM and SIGHUP held back until the end. Any other signal cuts the sleep
 * short. Returns 0, or minus the errno of the sleep.
 */
int msleep(int ms);

#endif
