"""`qvn-dataset prepare`: pictures to shards of network inputs with the
device's bytes, on a local Dask cluster, an existing one, or in process.

The sorted list of pictures is cut into shards of `--shard` pictures; shard
k always covers pictures k*N .. k*N+N-1 of that list, whoever converts it and
whatever failed before, so every run with the same inputs and options writes
the same bytes. One task converts one shard and writes its .npy itself (on a
cluster the output folder must be shared); the client keeps the manifest,
rewritten after every finished shard so that an interrupted run can resume.
"""
import csv
import hashlib
import io
import json
import os
import sys
import time
from pathlib import Path

from .failures import (EXIT_CLUSTER, EXIT_INPUT, EXIT_NOTHING, EXIT_OUTPUT, Failure,
                       UsageError, output_failure, report, shown, task_failure)
from .options import check_where, conversion_options, parse_args
from .route import ROUTE_BEFORE
from .shards import (NOT_UTF8, convert_shard, file_sha256, labels_name,  # noqa: F401
                     shard_name, write_atomically)
from .annotations import samples

PICTURE_SUFFIXES = (".png", ".jpg", ".jpeg")
MANIFEST = "manifest.json"
FORMAT_VERSION = 1
LABELS = "labels.jsonl"


def find_pictures(input_dir, given=None):
    """The sorted pictures under input_dir (relative, '/'-separated; a
    name that is not UTF-8 keeps its bytes as os.fsdecode does) and their
    [size, mtime_ns] stamps, which let --resume notice a changed picture."""
    root, given = Path(input_dir), shown(given or input_dir)
    if not root.is_dir():
        raise Failure(f"input folder '{given}' does not exist", EXIT_INPUT)
    if not os.access(root, os.R_OK | os.X_OK):
        raise Failure(f"input folder '{given}' cannot be read", EXIT_INPUT)
    found = sorted(p.relative_to(root).as_posix() for p in root.rglob("*")
                   if p.is_file() and p.suffix.lower() in PICTURE_SUFFIXES)
    return found, [stamp(os.path.join(input_dir, rel)) for rel in found]


def stamp(path):
    try:
        st = os.stat(path)
    except OSError:
        return None  # gone: the task lists it in errors.csv
    return [st.st_size, st.st_mtime_ns]


def inputs_digest(paths):
    return hashlib.sha256("\n".join(paths).encode("utf-8", "surrogateescape")).hexdigest()


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
    import logging

    try:
        from dask.distributed import Client, LocalCluster
    except ImportError as e:
        raise Failure(f"cannot import Dask ({e}): install python3-distributed, or convert "
                      "without it with --workers 0", EXIT_CLUSTER) from None
    # Failures are reported here, in one line each, not as Dask's log (its
    # configuration gives some of its loggers levels of their own) nor as
    # asyncio's notes on the tasks a lost worker leaves behind.
    for name in ["asyncio", *logging.root.manager.loggerDict]:
        if name == "asyncio" or name.split(".")[0] == "distributed":
            logging.getLogger(name).setLevel(logging.CRITICAL)
    if not args.scheduler:
        workers = args.workers or os.cpu_count() or 1
        cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                               dashboard_address=None, silence_logs=40)
        return Client(cluster), cluster
    try:
        client = Client(args.scheduler, timeout=args.wait)
    except OSError:
        raise Failure(f"cannot reach the Dask scheduler at {args.scheduler} within "
                      f"{args.wait:g} s (--wait)", EXIT_CLUSTER) from None
    try:
        if not client.scheduler_info().get("workers"):
            print(f"qvn-dataset: no worker is connected to {args.scheduler}; waiting up to "
                  f"{args.wait:g} s (--wait) for one", file=sys.stderr, flush=True)
            try:
                client.wait_for_workers(1, timeout=args.wait)
            except (OSError, TimeoutError):
                raise Failure(f"no worker joined the Dask scheduler at {args.scheduler} "
                              f"within {args.wait:g} s", EXIT_CLUSTER) from None
    except BaseException:
        client.close()
        raise
    return client, None


def load_resumable(path, manifest, slices, stamps):
    """The shard records of the run at `path` that --resume keeps: those
    whose file is intact and whose pictures are unchanged. A manifest that
    is not one this tool wrote is refused rather than guessed at."""
    def damaged(why):
        return Failure(f"--resume: '{shown(path)}' is damaged ({why}); run without --resume "
                       "to start afresh", EXIT_INPUT)

    try:
        old = json.loads(path.read_text(encoding="utf-8"))
    except OSError as e:
        raise Failure(f"--resume: cannot read '{shown(path)}': {e.strerror}", EXIT_INPUT) from None
    except ValueError as e:  # not UTF-8, not JSON
        raise damaged(str(e).split(":")[0]) from None
    if (not isinstance(old, dict) or old.get("tool") != "qvn-dataset"
            or old.get("format_version") != FORMAT_VERSION
            or not isinstance(old.get("shards"), list)):
        raise damaged("not a qvn-dataset manifest of this version")
    # A set made before the JPEG routes existed was made with the RGB one.
    if (dict(ROUTE_BEFORE, **(old.get("options") or {})) != manifest["options"]
            or old.get("inputs_sha256") != manifest["inputs_sha256"]):
        raise UsageError("--resume: the options or the input pictures differ from the "
                         "run recorded in " + str(path))
    done = {}
    for rec in old["shards"]:
        if not well_formed(rec, slices, "labels" in manifest["options"]):
            raise damaged("a shard record does not fit the pictures")
        i, n = rec["index"], manifest["options"]["shard"]
        f = path.parent / rec["file"]
        labels = path.parent / labels_name(i)
        if (rec.get("stamps") == stamps[i * n:i * n + len(slices[i])]
                and f.is_file() and file_sha256(f) == rec["sha256"]
                and ("labels_sha256" not in rec
                     or (labels.is_file() and file_sha256(labels) == rec["labels_sha256"]))):
            done[i] = rec
    return done


def well_formed(rec, slices, labelled):
    def is_int(v):
        return isinstance(v, int) and not isinstance(v, bool)

    try:
        i, rows = rec["index"], rec["rows"]
        if labelled and not (isinstance(rec["labels_sha256"], str) and len(rec["kept"]) == rows
                             and all(is_int(k) and 0 <= k < len(slices[i])
                                     for k in rec["kept"])):
            return False
        return (is_int(i) and 0 <= i < len(slices) and rec["file"] == shard_name(i)
                and is_int(rows) and isinstance(rec["sha256"], str)
                and len(rec["sizes"]) == rows and rows + len(rec["errors"]) == len(slices[i])
                and all(len(s) == 2 and all(map(is_int, s)) for s in rec["sizes"])
                and all(len(e) == 2 and all(isinstance(v, str) for v in e)
                        for e in rec["errors"]))
    except (KeyError, TypeError):
        return False


def make_output(out_dir):
    try:
        out_dir.mkdir(parents=True, exist_ok=True)
    except OSError as e:
        raise output_failure("create the output folder", out_dir, e) from None


def run_prepare(args):
    import qvn_kit

    options = conversion_options(args)
    check_where(args)
    # Tasks get absolute paths: a worker runs in a folder of its own.
    input_dir, out_dir = os.path.abspath(args.input_dir), Path(os.path.abspath(args.out_dir))
    try:
        input_dir.encode("utf-8")
    except UnicodeEncodeError:
        raise UsageError(f"input folder '{shown(input_dir)}': {NOT_UTF8}") from None
    paths, stamps = find_pictures(input_dir, args.input_dir)
    pictures, digest, objects, notes = len(paths), inputs_digest(paths), None, None
    if "labels" in options:
        paths, stamps, objects, errors, bare = samples(args, options, input_dir, paths, stamps)
        notes = {"annotation_errors": errors, "unannotated": bare}
    if out_dir.exists() and not out_dir.is_dir():
        raise Failure(f"output folder '{shown(out_dir)}' is a file", EXIT_OUTPUT)
    n = options["shard"]
    slices = [paths[i:i + n] for i in range(0, len(paths), n)]
    manifest = {
        "format_version": FORMAT_VERSION,
        "tool": "qvn-dataset",
        "kit_version": "%d.%d" % tuple(qvn_kit.kit_version),
        "core_version": "%d.%d" % tuple(qvn_kit.core_version),
        "module_version": qvn_kit.__version__,
        "options": options,
        "input_dir": str(Path(input_dir).resolve()),
        "inputs": pictures,
        "inputs_sha256": digest,
        "shards": [],
    }

    done = {}
    if args.resume and (out_dir / MANIFEST).exists():
        done = load_resumable(out_dir / MANIFEST, manifest, slices, stamps)
    manifest["shards"] = sorted(done.values(), key=lambda r: r["index"])
    todo = [i for i in range(len(slices)) if i not in done]

    # The cluster first: one that cannot be reached changes nothing here.
    start = time.perf_counter()
    client = cluster = None
    if todo and args.workers != 0:
        client, cluster = start_cluster(args)
    startup = time.perf_counter() - start
    try:
        return convert_all(args, input_dir, out_dir, manifest, slices, stamps, done, todo,
                           client, start, startup, objects, notes)
    finally:
        if client is not None:
            client.close()
        if cluster is not None:
            cluster.close()


def convert_all(args, input_dir, out_dir, manifest, slices, stamps, done, todo, client,
                start, startup, objects, notes):
    options, n = manifest["options"], manifest["options"]["shard"]

    def task(i):
        """The arguments of the task of shard i: with annotations, the
        objects of its pictures."""
        mine = None
        if objects is not None:
            mine = {}
            for item in slices[i]:
                rel = item if isinstance(item, str) else item[0]
                mine[rel] = objects.get(rel, [])
        return i, slices[i], input_dir, str(out_dir), options, mine

    # Nothing is removed before the manifest says the set is incomplete and
    # the index that listed the old shards is gone: an interrupted run never
    # leaves an index that looks usable.
    make_output(out_dir)
    write_manifest(out_dir, manifest, complete=False)
    try:
        # (and the temporary files of a killed run: only names this tool makes)
        stale = [out_dir / "index.csv", out_dir / "errors.csv", out_dir / LABELS]
        for name in ("shard-*.npy", "shard-*.labels.jsonl", "index.csv", "errors.csv", LABELS,
                     MANIFEST):
            stale += out_dir.glob(f".{name}.*.tmp")
        for f in stale:
            f.unlink(missing_ok=True)
        # A fresh run leaves no shard of an earlier, larger run behind.
        if not args.resume:
            for old_shard in [*out_dir.glob("shard-*.npy"), *out_dir.glob("shard-*.labels.jsonl")]:
                old_shard.unlink()
    except OSError as e:
        raise output_failure("remove the previous run's files from", out_dir, e) from None

    progress = Progress(sum(len(slices[i]) for i in todo), args.progress)

    def finished(rec):
        f = out_dir / rec["file"]
        labels = out_dir / labels_name(rec["index"])
        if (not f.is_file() or f.stat().st_size != rec["bytes"]
                or ("labels_sha256" in rec and not labels.is_file())):
            raise Failure(f"{rec['file']} was written by a worker but is not in "
                          f"'{shown(out_dir)}': the output folder must be shared by every "
                          "worker and this machine", EXIT_OUTPUT)
        rec["stamps"] = stamps[rec["index"] * n:rec["index"] * n + len(slices[rec["index"]])]
        manifest["shards"].append(rec)
        manifest["shards"].sort(key=lambda r: r["index"])
        write_manifest(out_dir, manifest, complete=False)
        progress.step(len(slices[rec["index"]]))

    try:
        if todo and args.workers == 0:
            for i in todo:
                finished(convert_shard(*task(i)))
        elif todo:
            run_on_dask(client, todo, task, finished, args.wait)
    finally:
        progress.close()
    seconds = time.perf_counter() - start

    write_tables(out_dir, manifest, slices, notes)
    manifest["rows"] = sum(r["rows"] for r in manifest["shards"])
    manifest["errors"] = sum(len(r["errors"]) for r in manifest["shards"])
    manifest["converted_now"] = sum(len(slices[i]) for i in todo)
    write_manifest(out_dir, manifest, complete=True)
    converted = manifest["converted_now"]
    rate = converted / seconds if seconds > 0 else 0.0
    # A per-object sample is an object, not a picture.
    what = ("objects" if (options.get("labels") or {}).get("per_object") is not None
            else "pictures")
    print(f"qvn-dataset: {converted} {what} in {seconds:.2f} s, {rate:.1f} {what}/s "
          f"({manifest['rows']} rows in {len(manifest['shards'])} shards, "
          f"{manifest['errors']} errors, {len(done)} shards kept; "
          f"{startup:.2f} s of it starting the cluster)")
    if notes is not None:
        manifest["annotation_errors"] = len(notes["annotation_errors"])
        manifest["unannotated"] = notes["unannotated"]
        write_manifest(out_dir, manifest, complete=True)
        alone = ("make no sample" if options["labels"]["per_object"] is not None
                 else "kept without labels")
        print(f"qvn-dataset: labels of {manifest['rows']} samples in {LABELS}; "
              f"{notes['unannotated']} pictures without annotations ({alone}), "
              f"{len(notes['annotation_errors'])} annotations in errors.csv")
    if manifest["inputs"] and manifest["rows"] == 0:
        raise Failure(f"not one of the {manifest['inputs']} pictures converted: errors.csv "
                      "says why",
                      EXIT_NOTHING)
    return 0


def run_on_dask(client, todo, task, finished, wait):
    """Converts the shards `todo` on the cluster; task(i) gives the
    arguments of shard i. Should every worker leave, the run waits `wait`
    seconds for one to come back, then stops with what is done kept."""
    from dask.distributed import TimeoutError as Pending
    from dask.distributed import wait as first_done

    futures = {client.submit(convert_shard, *task(i), pure=False): i for i in todo}
    pending, alone_since = set(futures), None
    while pending:
        try:
            done, pending = first_done(pending, timeout=min(wait, 5.0),
                                       return_when="FIRST_COMPLETED")
        except Pending:
            done = set()
        for future in sorted(done, key=futures.get):
            try:
                rec = future.result(timeout=min(wait, 5.0))
            except Pending:  # its result left with its worker: it runs again
                pending.add(future)
                done = done - {future}
                continue
            except Exception as e:
                failure = task_failure(e, futures[future])
                if failure is None:
                    raise
                raise failure from None
            finished(rec)
        if done or client.scheduler_info().get("workers"):
            alone_since = None
        elif alone_since is None:
            alone_since = time.monotonic()
            print(f"qvn-dataset: every worker left the cluster; waiting up to {wait:g} s "
                  "(--wait) for one", file=sys.stderr, flush=True)
        elif time.monotonic() - alone_since >= wait:
            raise Failure(f"every worker left the cluster and none came back within {wait:g} s "
                          "(--wait); the shards done are kept: run again with --resume",
                          EXIT_CLUSTER)


def write_manifest(out_dir, manifest, complete):
    manifest["complete"] = complete
    try:
        write_atomically(out_dir / MANIFEST, json.dumps(manifest, indent=1) + "\n")
    except OSError as e:
        raise output_failure("write in the output folder", out_dir, e) from None


def write_tables(out_dir, manifest, slices, notes=None):
    """index.csv (shard, row, source, width x height; with per-object
    crops, the object's number in its picture), errors.csv and, with
    annotations, labels.jsonl (the shards' labels one after the other); a
    source that is not UTF-8 is written with its odd bytes as \\xNN."""
    index, errors = io.StringIO(), io.StringIO()
    iw, ew = csv.writer(index, lineterminator="\n"), csv.writer(errors, lineterminator="\n")
    per_object = (manifest["options"].get("labels") or {}).get("per_object") is not None
    iw.writerow(["shard", "row", "source", "size"] + (["object"] if per_object else []))
    ew.writerow(["source", "error"])
    labels = []
    for rec in manifest["shards"]:
        if "kept" in rec:
            good = [slices[rec["index"]][k] for k in rec["kept"]]
        else:
            failed = {path for path, _ in rec["errors"]}
            good = [p for p in slices[rec["index"]] if shown(p) not in failed]
        for row, (item, (w, h)) in enumerate(zip(good, rec["sizes"])):
            path, extra = (item, []) if isinstance(item, str) else (item[0], [item[1]])
            iw.writerow([rec["file"], row, shown(path) if extra else path, f"{w}x{h}"] + extra)
        for path, message in rec["errors"]:
            ew.writerow([path, message])
        if "labels_sha256" in rec:
            try:
                labels.append((out_dir / labels_name(rec["index"])).read_bytes())
            except OSError as e:
                raise output_failure("read", out_dir / labels_name(rec["index"]), e) from None
    for path, message in (notes or {}).get("annotation_errors", []):
        ew.writerow([path, message])
    try:
        if notes is not None:
            write_atomically(out_dir / LABELS, b"".join(labels))
        write_atomically(out_dir / "errors.csv", errors.getvalue())
        write_atomically(out_dir / "index.csv", index.getvalue())
    except OSError as e:
        raise output_failure("write in the output folder", out_dir, e) from None


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    return report(lambda: run_prepare(args))
