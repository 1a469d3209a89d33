"""`qvn-dataset prepare`: pictures to shards of network inputs with the
device's bytes, on a local Dask cluster, an existing one, or in process.

The sorted list of pictures is cut into shards of `--shard` pictures; shard
k always covers pictures k*N .. k*N+N-1 of that list, whoever converts it and
whatever failed before, so every run with the same inputs and options writes
the same bytes. One task converts one shard and writes its .npy itself (on a
cluster the output folder must be shared); the client keeps the manifest,
rewritten after every finished shard so that an interrupted run can resume.
"""
import argparse
import csv
import hashlib
import io
import json
import os
import sys
import tempfile
import time
from pathlib import Path

import numpy as np

PICTURE_SUFFIXES = (".png", ".jpg", ".jpeg")
MANIFEST = "manifest.json"
FORMAT_VERSION = 1


class UsageError(Exception):
    """A bad option or output folder: one line on stderr, exit 2."""


# ---------------------------------------------------------------------------
# Options
# ---------------------------------------------------------------------------

def parse_args(argv):
    ap = argparse.ArgumentParser(
        prog="qvn-dataset",
        description="Prepare a training set with the device's bytes (libqvn_kit over Dask).")
    sub = ap.add_subparsers(dest="command", required=True)
    p = sub.add_parser("prepare", help="convert every PNG/JPEG under INPUT_DIR into shards")
    p.add_argument("input_dir", metavar="INPUT_DIR")
    p.add_argument("out_dir", metavar="OUT_DIR")
    p.add_argument("--format", default="nv21", choices=["nv21", "nv12", "bgra", "rgba"],
                   help="camera frame the pictures become, as `qvn-kit preprocess` makes it")
    p.add_argument("--orient", default="0",
                   help="orientation of the frames, undone by the conversion (qvn-kit names "
                        "joined by '|', or a number)")
    p.add_argument("--tensor", default=None, help="CxHxW (3x256x256; 1xHxW with --gray)")
    p.add_argument("--crop", default=None, help="x,y,w,h region of the upright view, pixels")
    p.add_argument("--bgr", action="store_true", help="planes in B,G,R order")
    p.add_argument("--gray", action="store_true", help="one gray plane")
    p.add_argument("--pad", type=int, default=0, help="value of crop pixels outside the frame")
    p.add_argument("--shard", type=int, default=1024, help="pictures a shard (1024)")
    where = p.add_mutually_exclusive_group()
    where.add_argument("--workers", type=int, default=None,
                       help="processes of a local Dask cluster (default: the machine's "
                            "cores); 0 converts in this process without Dask")
    where.add_argument("--scheduler", default=None,
                       help="address of a running Dask scheduler, e.g. tcp://host:8786")
    p.add_argument("--resume", action="store_true",
                   help="keep the shards a previous run finished (checked by their SHA-256)")
    p.add_argument("--progress", choices=["auto", "always", "never"], default="auto",
                   help="progress bar on stderr (auto: when stderr is a terminal)")
    return ap.parse_args(argv)


def conversion_options(args):
    """The options that decide the bytes, checked; stored in the manifest."""
    import qvn_kit

    tensor = args.tensor or ("1x256x256" if args.gray else "3x256x256")
    try:
        c, h, w = (int(v) for v in tensor.lower().split("x"))
    except ValueError:
        raise UsageError(f"--tensor {tensor!r} is not CxHxW") from None
    if args.gray and args.bgr:
        raise UsageError("--bgr and --gray exclude each other")
    if c != (1 if args.gray else 3) or h < 1 or w < 1:
        raise UsageError(f"--tensor {tensor} cannot hold the output: the "
                         f"{'gray' if args.gray else 'colour'} converter writes "
                         f"{1 if args.gray else 3} plane(s) of at least 1x1")
    crop = None
    if args.crop:
        try:
            crop = [int(v) for v in args.crop.split(",")]
        except ValueError:
            crop = []
        if len(crop) != 4:
            raise UsageError(f"--crop {args.crop!r} is not x,y,w,h")
    if args.shard < 1:
        raise UsageError("--shard must be at least 1")
    options = {"format": args.format, "orient": args.orient, "tensor": [c, h, w],
               "crop": crop, "bgr": args.bgr, "gray": args.gray, "pad": args.pad,
               "shard": args.shard}
    # Let the module refuse bad values now rather than once a picture.
    probe = qvn_kit.make_frame(np.zeros((2, 2, 3), np.uint8), args.format)
    try:
        convert_frame(qvn_kit, probe, options)
    except (TypeError, ValueError) as e:
        raise UsageError(str(e)) from None
    return options


# ---------------------------------------------------------------------------
# Work of one shard (runs on a worker)
# ---------------------------------------------------------------------------

def convert_frame(qvn_kit, frame, options, out=None):
    c, h, w = options["tensor"]
    if out is not None and options["gray"]:
        out = out[0]
    return qvn_kit.preprocess(frame, options["format"], options["orient"],
                              crop=options["crop"], size=(h, w), bgr=options["bgr"],
                              gray=options["gray"], pad=options["pad"], fast=True, out=out)


def picture_to_frame(qvn_kit, pic, fmt):
    """The tool's frame of a picture. 4:2:0 frames need an even size: a
    picture with an odd width or height gets its last column or row
    repeated, as the tool does."""
    return qvn_kit.make_frame(pic, fmt)


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


def convert_shard(index, paths, input_dir, out_dir, options):
    """Converts the pictures `paths` (relative to input_dir) into
    out_dir/shard-NNNNN.npy. Returns the shard's record for the manifest."""
    import qvn_kit

    keep_freed_memory()

    c, h, w = options["tensor"]
    batch = np.empty((len(paths), c, h, w), np.uint8)
    sizes, errors, rows = [], [], 0
    for rel in paths:
        try:
            pic = qvn_kit.read_picture(str(Path(input_dir) / rel))
            frame = picture_to_frame(qvn_kit, pic, options["format"])
            convert_frame(qvn_kit, frame, options, out=batch[rows])
        except (ValueError, MemoryError) as e:
            errors.append([rel, str(e) or type(e).__name__])
            continue
        sizes.append([int(pic.shape[1]), int(pic.shape[0])])
        rows += 1
    name = shard_name(index)
    data = save_npy_bytes(batch[:rows])
    write_atomically(Path(out_dir) / name, data)
    return {"index": index, "file": name, "rows": rows, "sha256": hashlib.sha256(data).hexdigest(),
            "sizes": sizes, "errors": errors}


def shard_name(index):
    return f"shard-{index:05d}.npy"


def save_npy_bytes(array):
    buf = io.BytesIO()
    np.save(buf, array, allow_pickle=False)
    return buf.getvalue()


def write_atomically(path, data):
    """Writes through a temporary file in the same folder: a reader (or a
    resumed run) never sees half a file."""
    path = Path(path)
    fd, tmp = tempfile.mkstemp(prefix=f".{path.name}.", dir=path.parent)
    try:
        with os.fdopen(fd, "wb") as f:
            f.write(data if isinstance(data, bytes) else data.encode())
        os.replace(tmp, path)
    except BaseException:
        os.unlink(tmp)
        raise


def file_sha256(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


# ---------------------------------------------------------------------------
# The run (client side)
# ---------------------------------------------------------------------------

def find_pictures(input_dir):
    root = Path(input_dir)
    if not root.is_dir():
        raise UsageError(f"input folder '{input_dir}' does not exist")
    found = [p.relative_to(root).as_posix() for p in root.rglob("*")
             if p.is_file() and p.suffix.lower() in PICTURE_SUFFIXES]
    return sorted(found)


def inputs_digest(paths):
    return hashlib.sha256("\n".join(paths).encode()).hexdigest()


class Progress:
    def __init__(self, total, mode):
        self.total = total
        self.active = mode == "always" or (mode == "auto" and sys.stderr.isatty())
        self.done = 0

    def step(self, pictures):
        self.done += pictures
        if self.active:
            width = 30
            filled = width * self.done // max(self.total, 1)
            sys.stderr.write(f"\rqvn-dataset [{'#' * filled}{'.' * (width - filled)}] "
                             f"{self.done}/{self.total} pictures")
            sys.stderr.flush()

    def close(self):
        if self.active:
            sys.stderr.write("\n")


def start_cluster(args):
    """(client, cluster) for --scheduler or --workers; cluster is None for a
    scheduler that someone else runs."""
    from dask.distributed import Client, LocalCluster

    if args.scheduler:
        return Client(args.scheduler), None
    workers = args.workers or os.cpu_count() or 1
    cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                           dashboard_address=None, silence_logs=40)
    return Client(cluster), cluster


def run_prepare(args):
    import qvn_kit

    options = conversion_options(args)
    paths = find_pictures(args.input_dir)
    out_dir = Path(args.out_dir)
    out_dir.mkdir(parents=True, exist_ok=True)
    n = options["shard"]
    slices = [paths[i:i + n] for i in range(0, len(paths), n)]
    manifest = {
        "format_version": FORMAT_VERSION,
        "tool": "qvn-dataset",
        "kit_version": "%d.%d" % tuple(qvn_kit.kit_version),
        "core_version": "%d.%d" % tuple(qvn_kit.core_version),
        "module_version": qvn_kit.__version__,
        "options": options,
        "input_dir": str(Path(args.input_dir).resolve()),
        "inputs": len(paths),
        "inputs_sha256": inputs_digest(paths),
        "shards": [],
    }

    done = {}
    if args.resume and (out_dir / MANIFEST).exists():
        old = json.loads((out_dir / MANIFEST).read_text())
        if old.get("options") != options or old.get("inputs_sha256") != manifest["inputs_sha256"]:
            raise UsageError("--resume: the options or the input pictures differ from the "
                             "run recorded in " + str(out_dir / MANIFEST))
        for rec in old.get("shards", []):
            f = out_dir / rec["file"]
            if f.exists() and file_sha256(f) == rec["sha256"]:
                done[rec["index"]] = rec
    manifest["shards"] = sorted(done.values(), key=lambda r: r["index"])
    todo = [i for i in range(len(slices)) if i not in done]
    # A fresh run leaves no shard of an earlier, larger run behind.
    if not args.resume:
        for old_shard in out_dir.glob("shard-*.npy"):
            old_shard.unlink()

    start = time.perf_counter()
    startup = 0.0
    progress = Progress(sum(len(slices[i]) for i in todo), args.progress)

    def finished(rec):
        manifest["shards"].append(rec)
        manifest["shards"].sort(key=lambda r: r["index"])
        write_manifest(out_dir, manifest, complete=False)
        progress.step(len(slices[rec["index"]]))

    write_manifest(out_dir, manifest, complete=False)
    if todo and args.workers == 0:
        for i in todo:
            finished(convert_shard(i, slices[i], args.input_dir, str(out_dir), options))
    elif todo:
        from dask.distributed import as_completed

        started = time.perf_counter()
        client, cluster = start_cluster(args)
        startup = time.perf_counter() - started
        try:
            futures = [client.submit(convert_shard, i, slices[i], args.input_dir, str(out_dir),
                                     options, pure=False)
                       for i in todo]
            for future in as_completed(futures):
                finished(future.result())
        finally:
            client.close()
            if cluster is not None:
                cluster.close()
    progress.close()
    seconds = time.perf_counter() - start

    write_tables(out_dir, manifest, slices)
    manifest["rows"] = sum(r["rows"] for r in manifest["shards"])
    manifest["errors"] = sum(len(r["errors"]) for r in manifest["shards"])
    manifest["converted_now"] = sum(len(slices[i]) for i in todo)
    write_manifest(out_dir, manifest, complete=True)
    converted = manifest["converted_now"]
    rate = converted / seconds if seconds > 0 else 0.0
    print(f"qvn-dataset: {converted} pictures in {seconds:.2f} s, {rate:.1f} pictures/s "
          f"({manifest['rows']} rows in {len(manifest['shards'])} shards, "
          f"{manifest['errors']} errors, {len(done)} shards kept; "
          f"{startup:.2f} s of it starting the cluster)")
    return 0


def write_manifest(out_dir, manifest, complete):
    manifest["complete"] = complete
    write_atomically(out_dir / MANIFEST, json.dumps(manifest, indent=1) + "\n")


def write_tables(out_dir, manifest, slices):
    """index.csv (shard, row, source, width x height) and errors.csv."""
    index, errors = io.StringIO(), io.StringIO()
    iw, ew = csv.writer(index, lineterminator="\n"), csv.writer(errors, lineterminator="\n")
    iw.writerow(["shard", "row", "source", "size"])
    ew.writerow(["source", "error"])
    for rec in manifest["shards"]:
        failed = {path for path, _ in rec["errors"]}
        good = [p for p in slices[rec["index"]] if p not in failed]
        for row, (path, (w, h)) in enumerate(zip(good, rec["sizes"])):
            iw.writerow([rec["file"], row, path, f"{w}x{h}"])
        for path, message in rec["errors"]:
            ew.writerow([path, message])
    write_atomically(out_dir / "index.csv", index.getvalue())
    write_atomically(out_dir / "errors.csv", errors.getvalue())


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    try:
        return run_prepare(args)
    except UsageError as e:
        print(f"qvn-dataset: {e}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print("qvn-dataset: interrupted; run again with --resume to finish", file=sys.stderr)
        return 130
