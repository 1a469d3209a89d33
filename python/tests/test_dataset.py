"""qvn-dataset: a local Dask cluster, an external one and a single process
write the same bytes, every row is the module's conversion of its picture,
bad pictures are listed and skipped, --resume rewrites only what is missing
or changed, and every failure a user can act on is one line and a
documented exit code, never an index that looks complete."""
import csv
import json
import os
import shutil
import signal
import subprocess
import sys
import time

import numpy as np
import pytest

from conftest import dataset_env as tool_env, picture, run_dataset, write_png

ARGS = ["--format", "nv21", "--orient", "rotate90r|mirror", "--tensor", "3x24x20",
        "--crop", "2,1,30,26", "--bgr", "--shard", "6"]
BAD_NAME = os.fsdecode(b"bad-\xff.png")  # not UTF-8: os.listdir gives it surrogates
UMASK = 0o027


def run_tool(*args, cwd=None):
    return run_dataset(*args, cwd=cwd, umask=UMASK)


def dataset(*args, cwd=None):
    done = run_tool(*args, cwd=cwd)
    assert done.returncode == 0, done.stderr
    return done.stdout


def failed(done, code, *words):
    """One line on stderr that says what, and the documented exit code."""
    lines = done.stderr.splitlines()
    assert done.returncode == code and len(lines) == 1, (done.returncode, done.stderr)
    assert lines[0].startswith("qvn-dataset: "), lines
    for w in words:
        assert w in lines[0], (w, lines[0])


def copy_set(src, dst):
    dst.mkdir(exist_ok=True)
    for f in src.iterdir():
        (dst / f.name).write_bytes(f.read_bytes())


def same_files(got, want):
    """Every file of `want` but its manifest (which records times) has its
    twin in `got`."""
    for f in want.iterdir():
        if f.name != "manifest.json":
            assert (got / f.name).read_bytes() == f.read_bytes(), f.name


@pytest.fixture(scope="module")
def pictures(tmp_path_factory):
    root = tmp_path_factory.mktemp("pictures")
    rng = np.random.default_rng(11)
    for i in range(20):
        h, w = (int(v) for v in rng.integers(9, 60, 2))  # odd and even sizes
        channels = (3, 1, 4)[i % 3]
        pic = picture(h, w, channels=max(channels, 3), seed=i)[..., :channels]
        folder = root / ("a" if i % 2 else "b/c")
        folder.mkdir(parents=True, exist_ok=True)
        write_png(folder / f"p{i:02d}.png", pic.squeeze())
    (root / "b" / "broken.png").write_bytes(b"\x89PNG\r\n\x1a\n" + b"\0" * 40)
    # A good picture under a name that is not UTF-8 is one row of errors.csv.
    write_png(root / "b" / BAD_NAME, picture(10, 12, seed=99))
    (root / "notes.txt").write_text("not a picture")
    return root


@pytest.fixture(scope="module")
def single(pictures, tmp_path_factory):
    out = tmp_path_factory.mktemp("single")
    dataset(pictures, out, *ARGS, "--workers", "0")
    return out


def converted(qk, pic):
    """The module's conversion of a picture with ARGS, the odd edge of a
    4:2:0 frame repeated as the tool does."""
    h, w = pic.shape[:2]
    even = np.pad(pic, ((0, h % 2), (0, w % 2)) + ((0, 0),) * (pic.ndim - 2), mode="edge")
    frame = qk.make_frame(even, "nv21")
    return qk.preprocess(frame, "nv21", "rotate90r|mirror", crop=(2, 1, 30, 26), size=(24, 20),
                         bgr=True)


def test_cluster_equals_single_process_and_module(qk, pictures, single, tmp_path):
    summary = dataset(pictures, tmp_path, *ARGS, "--workers", "2")
    assert "22 pictures" in summary
    shards = sorted(p.name for p in single.glob("shard-*.npy"))
    assert shards == ["shard-00000.npy", "shard-00001.npy", "shard-00002.npy",
                      "shard-00003.npy"]
    for name in shards + ["index.csv", "errors.csv"]:
        assert (tmp_path / name).read_bytes() == (single / name).read_bytes(), name

    rows = list(csv.DictReader((single / "index.csv").open()))
    assert len(rows) == 20
    manifest = json.loads((single / "manifest.json").read_text())
    assert manifest["complete"] and manifest["rows"] == 20 and manifest["errors"] == 2
    assert manifest["kit_version"] == "%d.%d" % qk.kit_version
    for row in rows:
        pic = qk.read_picture(str(pictures / row["source"]))
        h, w = pic.shape[:2]
        assert row["size"] == f"{w}x{h}"
        got = np.load(single / row["shard"])[int(row["row"])]
        np.testing.assert_array_equal(got, converted(qk, pic), err_msg=row["source"])

    errors = list(csv.DictReader((single / "errors.csv").open()))
    assert [e["source"] for e in errors] == ["b/bad-\\xff.png", "b/broken.png"]
    assert errors[0]["error"] == "file name is not valid UTF-8"
    assert errors[1]["error"].startswith("cannot decode PNG")


def test_resume_redoes_only_missing_damaged_or_changed_shards(qk, pictures, single, tmp_path):
    src, out = tmp_path / "in", tmp_path / "out"
    shutil.copytree(pictures, src)
    copy_set(single, out)
    (out / "shard-00001.npy").unlink()
    damaged = bytearray((out / "shard-00003.npy").read_bytes())
    damaged[-1] ^= 1
    (out / "shard-00003.npy").write_bytes(bytes(damaged))
    # A picture of shard 2 changes under the same name (and the same size in
    # pixels, so index.csv stays as it was).
    rows = list(csv.DictReader((single / "index.csv").open()))
    row = next(r for r in rows if r["shard"] == "shard-00002.npy")
    h, w = qk.read_picture(str(pictures / row["source"])).shape[:2]
    write_png(src / row["source"], picture(h, w, seed=1234))
    st = (src / row["source"]).stat()
    os.utime(src / row["source"], ns=(st.st_atime_ns, st.st_mtime_ns + 10**9))
    kept = (out / "shard-00000.npy").stat().st_mtime_ns

    summary = dataset(src, out, *ARGS, "--workers", "0", "--resume")
    assert "1 shards kept" in summary
    assert (out / "shard-00000.npy").stat().st_mtime_ns == kept
    for name in ["shard-00001.npy", "shard-00003.npy", "index.csv"]:
        assert (out / name).read_bytes() == (single / name).read_bytes(), name
    # The reader's messages name the folder the pictures were read from.
    assert ((out / "errors.csv").read_text().replace(str(src), str(pictures)) ==
            (single / "errors.csv").read_text())
    redone, before = np.load(out / "shard-00002.npy"), np.load(single / "shard-00002.npy")
    r = int(row["row"])
    now = qk.read_picture(str(src / row["source"]))
    np.testing.assert_array_equal(redone[r], converted(qk, now))
    assert not np.array_equal(redone[r], before[r])
    np.testing.assert_array_equal(np.delete(redone, r, 0), np.delete(before, r, 0))


def test_output_files_take_the_umask(single):
    """Shards, tables and manifest get 0666 less the umask, as any file."""
    modes = {f.name: f.stat().st_mode & 0o777 for f in single.iterdir()}
    assert len(modes) == 7 and set(modes.values()) == {0o666 & ~UMASK}, modes


# The run below stops for good before shard 1, so that the test can kill it
# at a known point: after shard 0 of a fresh run is written.
STALLED_RUN = """
import sys, time
import qvn_dataset.prepare as prepare
convert = prepare.convert_shard
def stalled(index, *args):
    if index >= 1:
        time.sleep(120)
    return convert(index, *args)
prepare.convert_shard = stalled
sys.exit(prepare.main(sys.argv[1:]))
"""


def test_killed_run_over_a_complete_set_leaves_no_usable_index(pictures, single, tmp_path):
    out = tmp_path / "out"
    copy_set(single, out)
    new_args = [*ARGS[:-1], "4", "--workers", "0"]  # new options: shards of 4
    run = subprocess.Popen([sys.executable, "-c", STALLED_RUN, "prepare", pictures, out,
                            *new_args], env=tool_env(), stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            try:
                manifest = json.loads((out / "manifest.json").read_text())
            except ValueError:
                continue
            if manifest["options"]["shard"] == 4 and manifest["shards"]:
                break
            time.sleep(0.02)
        else:
            pytest.fail("the run never finished its first shard")
    finally:
        run.send_signal(signal.SIGKILL)
        run.wait()

    manifest = json.loads((out / "manifest.json").read_text())
    assert manifest["complete"] is False
    assert not (out / "index.csv").exists() and not (out / "errors.csv").exists()
    assert sorted(p.name for p in out.glob("shard-*.npy")) == ["shard-00000.npy"]

    summary = dataset(pictures, out, *new_args, "--resume")
    assert "1 shards kept" in summary and "6 shards" in summary
    fresh = tmp_path / "fresh"
    dataset(pictures, fresh, *new_args)
    assert sorted(os.listdir(out)) == sorted(os.listdir(fresh))
    same_files(out, fresh)
    assert json.loads((out / "manifest.json").read_text())["complete"] is True


# Put on a worker's path: it converts one shard, then its process ends in
# the middle of the second.
DIES_IN_SECOND_SHARD = """
import os
import qvn_dataset.shards as shards
real, calls = shards.convert_shard, []
def convert_shard(*args, **kwargs):
    calls.append(1)
    if len(calls) == 2:
        os._exit(0)
    return real(*args, **kwargs)
shards.convert_shard = convert_shard
"""


def dask_process(kind, *args, cwd, env):
    return subprocess.Popen([sys.executable, "-m", f"distributed.cli.dask_{kind}", *args],
                            cwd=cwd, env=env, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)


def stop(process):
    process.terminate()
    try:
        process.wait(10)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def test_external_scheduler_with_relative_paths_and_its_failures(pictures, single, tmp_path):
    """A worker runs in a folder of its own: relative INPUT_DIR OUT_DIR
    still mean the client's folders. No worker, or one without the package,
    is one line and exit 6, with no index."""
    elsewhere = tmp_path / "elsewhere"
    elsewhere.mkdir()
    address_file = tmp_path / "scheduler.json"
    scheduler = dask_process("scheduler", "--host", "127.0.0.1", "--port", "0",
                             "--no-dashboard", "--scheduler-file", address_file,
                             cwd=elsewhere, env=tool_env())
    workers = []
    try:
        deadline = time.monotonic() + 30
        while not address_file.exists() or not address_file.stat().st_size:
            assert time.monotonic() < deadline and scheduler.poll() is None, "no scheduler"
            time.sleep(0.05)
        address = json.loads(address_file.read_text())["address"]
        src = os.path.relpath(pictures, tmp_path)
        cluster = [*ARGS, "--scheduler", address]

        def unfinished():
            manifest = json.loads((tmp_path / "out" / "manifest.json").read_text())
            return manifest["complete"] is False and not (tmp_path / "out" / "index.csv").exists()

        alone = run_tool(src, "out", *cluster, "--wait", "1", cwd=tmp_path)
        assert alone.returncode == 6, alone.stderr
        assert alone.stderr.splitlines() == [
            f"qvn-dataset: no worker is connected to {address}; waiting up to 1 s (--wait) "
            "for one",
            f"qvn-dataset: no worker joined the Dask scheduler at {address} within 1 s"]
        assert not (tmp_path / "out").exists()  # no cluster, nothing touched

        bare = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
        workers.append(dask_process("worker", address, "--nthreads", "1", "--no-nanny",
                                    "--no-dashboard", cwd=elsewhere, env=bare))
        lacking = run_tool(src, "out", *cluster, "--wait", "30", cwd=tmp_path)
        # (its first line says it waits for the worker to start)
        assert lacking.returncode == 6, lacking.stderr
        assert lacking.stderr.splitlines()[-1].startswith(
            "qvn-dataset: a worker cannot import qvn_dataset"), lacking.stderr
        assert unfinished()
        stop(workers.pop())

        # A worker that dies in its second shard: the run waits --wait for
        # another, then stops, and --resume finishes it (whether the first
        # shard's record reached the client before its worker died is a race).
        hook = tmp_path / "dying"
        hook.mkdir()
        (hook / "sitecustomize.py").write_text(DIES_IN_SECOND_SHARD)
        dying = tool_env()
        dying["PYTHONPATH"] = os.pathsep.join([str(hook), dying["PYTHONPATH"]])
        workers.append(dask_process("worker", address, "--nthreads", "1", "--no-nanny",
                                    "--no-dashboard", cwd=elsewhere, env=dying))
        left = run_tool(src, "out", *cluster, "--wait", "4", cwd=tmp_path)
        assert left.returncode == 6, left.stderr
        assert left.stderr.splitlines()[-2:] == [
            "qvn-dataset: every worker left the cluster; waiting up to 4 s (--wait) for one",
            "qvn-dataset: every worker left the cluster and none came back within 4 s "
            "(--wait); the shards done are kept: run again with --resume"], left.stderr
        assert unfinished() and workers.pop().wait(10) == 0

        workers.append(dask_process("worker", address, "--nthreads", "1", "--no-nanny",
                                    "--no-dashboard", cwd=elsewhere, env=tool_env()))
        summary = dataset(src, "out", *cluster, "--wait", "30", "--resume", cwd=tmp_path)
        assert "(20 rows in 4 shards, 2 errors" in summary
        same_files(tmp_path / "out", single)
        assert sorted(os.listdir(elsewhere)) == []
    finally:
        for process in workers + [scheduler]:
            stop(process)


def test_mistakes_are_one_line_and_an_exit_code(pictures, single, tmp_path):
    """Usage 2, input 3, output 4, nothing converted 5, cluster 6: one line
    on stderr, no traceback, and nothing of an existing set lost."""
    a_file = tmp_path / "a-file"
    a_file.write_text("kept")
    for args, code, words in [
            (["--workers", "-1"], 2, ["--workers -1"]),
            (["--scheduler", "foo"], 2, ["--scheduler 'foo' is not an address"]),
            (["--tensor", "3x12000x12000"], 2, ["12000x12000 pixels is above the limit"]),
            # 2 GiB (--max-shard-mb) holds 42 rows of 3x4096x4096 bytes
            (["--tensor", "3x4096x4096", "--shard", "43"], 2,
             [f"use --shard {(2048 << 20) // (3 * 4096 * 4096)} or fewer"]),
            (["--scheduler", "tcp://127.0.0.1:1", "--wait", "0.5"], 6,
             ["cannot reach the Dask scheduler at tcp://127.0.0.1:1 within 0.5 s"])]:
        done = run_tool(pictures, tmp_path / "new", *args)
        failed(done, code, *words)
        assert not (tmp_path / "new").exists(), args

    failed(run_tool(tmp_path / "none", tmp_path / "new"), 3, "input folder", "does not exist")
    failed(run_tool(pictures, a_file, "--workers", "0"), 4, "is a file")
    assert a_file.read_text() == "kept"
    # /proc/self is a folder nobody, root included, can create a file in.
    failed(run_tool(pictures, "/proc/self", "--workers", "0"), 4, "cannot write in")

    # A damaged manifest: --resume refuses it and leaves the set as it was.
    out = tmp_path / "damaged"
    copy_set(single, out)
    text = (out / "manifest.json").read_text()
    (out / "manifest.json").write_text(text[:len(text) // 2])
    before = {f.name: f.read_bytes() for f in out.iterdir()}
    failed(run_tool(pictures, out, *ARGS, "--workers", "0", "--resume"), 3,
           "manifest.json' is damaged")
    assert {f.name: f.read_bytes() for f in out.iterdir()} == before

    # Not one picture converted is no success, though the set is complete.
    broken = tmp_path / "broken"
    broken.mkdir()
    for name in ("x.png", "y.jpg"):
        (broken / name).write_bytes(b"\x89PNG\r\n\x1a\n" + b"\0" * 40)
    done = run_tool(broken, tmp_path / "empty", "--workers", "0")
    failed(done, 5, "not one of the 2 pictures converted")
    errors = list(csv.reader((tmp_path / "empty" / "errors.csv").open()))
    assert [e[0] for e in errors] == ["source", "x.png", "y.jpg"]
    assert (tmp_path / "empty" / "index.csv").read_text() == "shard,row,source,size\n"
