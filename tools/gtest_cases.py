"""Which cases of a test program can share a process. For the scripts beside it that run such programs."""
import subprocess

# Suites that need a process for each case, as ctest(1) gives it to them: what they test keeps a state of the process,
# as getopt(3) does.
APART = ("Options", "CommandTable")
# The filter of all others but the long ones (tools/test-long).
TOGETHER = f"-Long*:*/Long*:{':'.join(suite + '.*' for suite in APART)}"


def cases(program):
    """Yields (suite, case) of all cases."""
    listing = subprocess.run([program, "--gtest_list_tests"], stdout=subprocess.PIPE, text=True, check=True).stdout
    suite = ""
    for line in listing.splitlines():
        if line.startswith(" "):
            yield suite, line.split()[0]
        else:
            suite = line.split()[0].rstrip(".")


def cases_apart(program):
    """Yields the filters of the cases that need a process of their own."""
    return (f"{suite}.{case}" for suite, case in cases(program) if suite in APART)


def has_cases_together(program):
    return any(suite not in APART and "Long" not in (part[:4] for part in suite.split("/"))
               for suite, _ in cases(program))
