/* Removal of directory trees, and sleeping. */
#ifndef MWD_MISC_H
#define MWD_MISC_H

/*
 * Removes the directory `dirpath` with everything below it. Symbolic links are removed, not followed, and mount points
 * not crossed. Returns 0, also when there is no such path; -1 when the path cannot be looked at and -2 when it is no
 * directory, both after an error line; else the negative result of the walk, which stopped at the first entry that
 * could not be removed and shows it in a debug line only. Safe to call again on what is left.
 */
int rm_fr(const char *dirpath);

/*
 * Sleeps for `ms` milliseconds with SIGINT, SIGTERM and SIGHUP held back until the end. Any other signal cuts the sleep
 * short. Returns 0, or minus the errno of the sleep.
 */
int msleep(int ms);

#endif
