"""The work of one shard, on a worker: its pictures converted into one .npy
written atomically, and the record the manifest keeps of it."""
import hashlib
import json
import os
import secrets
from pathlib import Path

import numpy as np

from .failures import (EXIT_INPUT, EXIT_OUTPUT, Failure, memory_failure, output_failure,
                       shown, host)
from .labels import Labeller
from .route import convert_picture

NOT_UTF8 = "file name is not valid UTF-8"


_MALLOC_TUNED = False


def keep_freed_memory():
    """Every picture allocates and frees some tens of megabytes. By default
    glibc serves such blocks with mmap or trims them off the heap when they
    are freed (Dask even sets MALLOC_TRIM_THRESHOLD_=65536 in its workers),
    so the next picture faults all of it in again: two to three times the
    time per 1080p picture on a virtual machine. Keep freed memory for reuse
    instead (once per process)."""
    global _MALLOC_TUNED
    if _MALLOC_TUNED:
        return
    _MALLOC_TUNED = True
    try:
        import ctypes

        libc = ctypes.CDLL("libc.so.6")
        libc.mallopt(-1, 1 << 29)  # M_TRIM_THRESHOLD: 512 MiB
        libc.mallopt(-3, 1 << 25)  # M_MMAP_THRESHOLD: 32 MiB, glibc's largest
    except (OSError, AttributeError):
        pass  # another C library: its defaults then


def convert_shard(index, paths, input_dir, out_dir, options, objects=None):
    """Converts the samples `paths` (pictures relative to input_dir, which
    like out_dir is absolute: a worker may run in any folder; with per-object
    crops, [picture, object] pairs) into out_dir/shard-NNNNN.npy and, with
    annotations (`objects`: picture -> its objects), their labels into
    shard-NNNNN.labels.jsonl. Returns the shard's record for the manifest."""
    import qvn_kit

    keep_freed_memory()
    # A worker that does not see the folders would list every picture as an
    # error, or write its shard where nobody looks: say so instead.
    if not os.path.isdir(input_dir):
        raise Failure(f"a worker on {host()} does not see the input folder "
                      f"'{shown(input_dir)}': every worker must see it at the same path",
                      EXIT_INPUT)
    if not os.path.isdir(out_dir):
        raise Failure(f"a worker on {host()} does not see the output folder "
                      f"'{shown(out_dir)}': every worker must see it at the same path",
                      EXIT_OUTPUT)

    c, h, w = options["tensor"]
    try:
        batch = np.empty((len(paths), c, h, w),
                         np.float32 if options.get("dtype") == "float32" else np.uint8)
    except MemoryError:
        raise memory_failure(index) from None
    labeller = None if objects is None else Labeller(qvn_kit, options, objects)
    name = shard_name(index)
    sizes, errors, lines, kept, rows = [], [], [], [], 0
    for position, item in enumerate(paths):
        rel, k = (item, None) if isinstance(item, str) else item
        try:
            # The kit's reader takes UTF-8 paths; a name that is not UTF-8
            # (kept by os.fsdecode as lone surrogates) cannot be opened.
            try:
                rel.encode("utf-8")
            except UnicodeEncodeError:
                raise ValueError(NOT_UTF8) from None
            path = os.path.join(input_dir, rel)
            if labeller is None:
                width, height = convert_picture(qvn_kit, path, options, batch[rows])
            else:
                (width, height), fields = labeller.convert(path, rel, k, batch[rows])
                lines.append(json.dumps(dict({"shard": name, "row": rows, "source": shown(rel)},
                                             **fields), separators=(",", ":")) + "\n")
        except (ValueError, MemoryError) as e:
            why = str(e) or type(e).__name__
            errors.append([shown(rel), why if k is None else f"object {k}: {why}"])
            continue
        sizes.append([width, height])
        kept.append(position)
        rows += 1
    digest = hashlib.sha256()
    try:
        size = write_atomically(Path(out_dir) / name,
                                lambda f: np.save(_Hashing(f, digest), batch[:rows],
                                                  allow_pickle=False))
    except OSError as e:
        raise output_failure("write", Path(out_dir) / name, e) from None
    rec = {"index": index, "file": name, "rows": rows, "sha256": digest.hexdigest(),
           "bytes": size, "sizes": sizes, "errors": errors}
    if labeller is not None:
        text = "".join(lines).encode("utf-8")
        try:
            write_atomically(Path(out_dir) / labels_name(index), text)
        except OSError as e:
            raise output_failure("write", Path(out_dir) / labels_name(index), e) from None
        rec.update(kept=kept, labels_sha256=hashlib.sha256(text).hexdigest())
    return rec


class _Hashing:
    """A file that hashes what is written to it: np.save streams a shard
    through it, so a shard is never copied into memory twice."""

    def __init__(self, f, digest):
        self.f, self.digest = f, digest

    def write(self, data):
        self.digest.update(data)
        return self.f.write(data)


def shard_name(index):
    return f"shard-{index:05d}.npy"


def labels_name(index):
    return f"shard-{index:05d}.labels.jsonl"


def write_atomically(path, data):
    """Writes `data` (bytes, str, or a function that writes to a binary
    file) through a temporary file in the same folder: a reader (or a
    resumed run) never sees half a file. The file gets the mode of any file
    this process creates (0666 less the umask). Returns its size."""
    path = Path(path)
    while True:
        tmp = path.parent / f".{path.name}.{os.getpid()}.{secrets.token_hex(4)}.tmp"
        try:
            fd = os.open(tmp, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o666)
            break
        except FileExistsError:
            continue
    try:
        with os.fdopen(fd, "wb") as f:
            if callable(data):
                data(f)
            else:
                f.write(data if isinstance(data, bytes) else data.encode())
            size = f.tell()
        os.replace(tmp, path)
    except BaseException:
        os.unlink(tmp)
        raise
    return size


def file_sha256(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()
