"""How `qvn-dataset` fails: one line on stderr and an exit code that says
which kind of failure it was, as the command-line tool does. A traceback is
shown only for an error nobody foresaw (a bug), and then only when
QVN_DATASET_DEBUG is set."""
import os
import socket
import sys
import traceback

EXIT_USAGE = 2    # bad option value, an option over a limit, --resume with other options
EXIT_INPUT = 3    # INPUT_DIR missing, unreadable or unseen by a worker; a damaged manifest;
                  # an unusable annotations file
EXIT_OUTPUT = 4   # OUT_DIR cannot be made or written, or a worker's shard is not in it
EXIT_NOTHING = 5  # the run finished but not one picture converted (see errors.csv)
EXIT_CLUSTER = 6  # Dask: no scheduler, no worker, a worker without the package or dead
EXIT_INTERRUPTED = 130

EXIT_CODES_HELP = """\
exit codes:
  0    every picture converted or listed in errors.csv
  1    an unexpected error (a bug; QVN_DATASET_DEBUG=1 shows its traceback)
  2    bad option value, an option over a limit, --resume with other options
  3    INPUT_DIR missing or unreadable, not seen by a worker at the same
       path, or a manifest.json that --resume cannot use; an --annotations
       file that cannot be read or is not valid at all (nothing is written)
  4    OUT_DIR cannot be made or written, or a shard a worker wrote is not in
       it (the folder must be shared by every worker and this machine)
  5    not one picture converted: errors.csv says why for each
  6    the Dask scheduler cannot be reached, no worker joined within --wait,
       or a worker cannot import the package or died
  130  interrupted: run again with --resume to finish
Until a run ends, manifest.json says "complete": false and there is no
index.csv or errors.csv, so an interrupted or failed run never leaves an
index that looks usable."""


class Failure(Exception):
    """A failure the user can act on: `message` on one line, exit `code`.
    Raised on the client or inside a task (it pickles with both values)."""

    def __init__(self, message, code):
        super().__init__(message, code)

    @property
    def code(self):
        return self.args[1]

    def __str__(self):
        return self.args[0]


class UsageError(Failure):
    """A bad option or option value: exit 2."""

    def __init__(self, message, code=EXIT_USAGE):
        super().__init__(message, code)


def shown(path):
    """A path as it can be printed or written to a UTF-8 CSV: bytes that are
    not UTF-8 (which os.fsdecode keeps as lone surrogates) become \\xNN."""
    return os.fsencode(path).decode("utf-8", "backslashreplace")


def task_failure(error, shard):
    """The Failure for an exception that a Dask task of `shard` raised, or
    None when it is not one a user can act on."""
    try:
        from distributed.scheduler import KilledWorker
    except ImportError:  # pragma: no cover - only reached with Dask present
        KilledWorker = ()
    if isinstance(error, Failure):
        return error
    if isinstance(error, ImportError):
        what = error.name or "the package"
        return Failure(f"a worker cannot import {what} ({error}): install the kit on every "
                       "worker or put its folders on the workers' PYTHONPATH", EXIT_CLUSTER)
    if KilledWorker and isinstance(error, KilledWorker):
        return Failure(f"the workers converting shard {shard} died (out of memory? lower "
                       "--shard)", EXIT_CLUSTER)
    if isinstance(error, MemoryError):
        return memory_failure(shard)
    if isinstance(error, OSError):  # the scheduler or a worker went away
        return Failure(f"lost the Dask cluster while shard {shard} was converted: {error}",
                       EXIT_CLUSTER)
    return None


def memory_failure(shard=None):
    where = "" if shard is None else f" for shard {shard}"
    return Failure(f"not enough memory{where}: lower --shard or --max-shard-mb", EXIT_USAGE)


def output_failure(what, path, error):
    reason = error.strerror or str(error)
    return Failure(f"cannot {what} '{shown(path)}': {reason}", EXIT_OUTPUT)


def report(run):
    """Runs `run()` and turns what it raises into one line on stderr and the
    exit code."""
    try:
        return run()
    except Failure as e:
        message, code = str(e), e.code
    except KeyboardInterrupt:
        message, code = "interrupted; run again with --resume to finish", EXIT_INTERRUPTED
    except MemoryError:
        message, code = str(memory_failure()), EXIT_USAGE
    except Exception as e:  # a bug: say what, and where only when asked
        if os.environ.get("QVN_DATASET_DEBUG"):
            traceback.print_exc()
        detail = " ".join(str(e).split()) or "no message"
        message = (f"unexpected error {type(e).__name__}: {detail} (QVN_DATASET_DEBUG=1 "
                   "shows the traceback)")
        code = 1
    sys.stderr.flush()
    print(f"qvn-dataset: {message}", file=sys.stderr)
    return code


def host():
    return socket.gethostname()
