"""Times mwctl on a large tree beside find and grep, which list and read the same files: alternately, in one run.

    ctl.py MWCTL CONFIG TREE ROUNDS

Prints a table of medians. Ends with 1 if a command fails, or takes more time or memory than it may."""
import os
import statistics
import sys
import time

MEMORY = 256 * 1024  # KiB that no command may exceed


def run(argv):
    """Runs a command. Returns seconds, seconds of processor time, KiB of memory, and the status."""
    with open(os.devnull, "w") as null:
        began = time.monotonic()
        pid = os.posix_spawnp(argv[0], argv, os.environ, file_actions=[(os.POSIX_SPAWN_DUP2, null.fileno(), 1)])
        _, status, use = os.wait4(pid, 0)
        return time.monotonic() - began, use.ru_utime + use.ru_stime, use.ru_maxrss, os.waitstatus_to_exitcode(status)


def main(mwctl, config, tree, rounds):
    ctl = [mwctl, "-C", config]
    # name, command, and its limit: a multiple of another command's time, or milliseconds
    rows = [("find TREE", ["find", tree], None),
            ("grep -rc . TREE", ["grep", "-rc", ".", tree], None),
            ("mwctl status", [*ctl, "status"], (2, "find TREE")),
            ("mwctl check", [*ctl, "check"], (1.5, "grep -rc . TREE")),
            ("mwctl nodes", [*ctl, "nodes"], None),
            ("mwctl datastores", [*ctl, "datastores"], None),
            ("mwctl vdisks", [*ctl, "vdisks"], None),
            ("mwctl show node", [*ctl, "show", "node", "500"], (20, "ms")),
            ("mwctl show datastore", [*ctl, "show", "datastore", "store-1"], (20, "ms")),
            ("mwctl show vdisk", [*ctl, "show", "vdisk", "v00100-0050"], (20, "ms"))]
    runs = {name: [] for name, _, _ in rows}
    failed = False
    for _ in range(int(rounds)):
        for name, argv, _ in rows:
            runs[name].append(run(argv))
            if runs[name][-1][3] != 0:
                sys.exit(f"{name} ended with {runs[name][-1][3]}")
    print("| Command | time, ms | processor, ms | memory, MiB | limit | of it |\n|---|---|---|---|---|---|")
    median = {name: [statistics.median(column) for column in zip(*measured)] for name, measured in runs.items()}
    for name, _, limit in rows:
        wall, cpu, memory, _ = median[name]
        allowed, share = "", ""
        if limit:
            factor, unit = limit
            bound = factor / 1000 if unit == "ms" else factor * median[unit][0]
            allowed, share = f"{factor} {unit}" if unit == "ms" else f"{factor} x {unit}", f"{wall / bound:.0%}"
            failed |= wall > bound or memory > MEMORY
        print(f"| {name} | {wall * 1000:.1f} | {cpu * 1000:.1f} | {memory / 1024:.0f} | {allowed} | {share} |")
    return failed


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
