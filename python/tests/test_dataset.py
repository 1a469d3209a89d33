"""qvn-dataset: a local Dask cluster and a single process write the same
bytes, every row is the module's conversion of its picture, bad pictures are
listed and skipped, and --resume rewrites only what is missing."""
import csv
import json
import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

from conftest import BUILD, ROOT, picture, write_png

ARGS = ["--format", "nv21", "--orient", "rotate90r|mirror", "--tensor", "3x24x20",
        "--crop", "2,1,30,26", "--bgr", "--shard", "6"]


def dataset(*args):
    env = dict(os.environ)
    module_dir = os.environ.get("QVN_PYTHONPATH", str(BUILD / "python"))
    env["PYTHONPATH"] = os.pathsep.join([module_dir, str(ROOT / "python")])
    done = subprocess.run([sys.executable, "-m", "qvn_dataset", "prepare", *map(str, args)],
                          capture_output=True, text=True, env=env, timeout=300)
    assert done.returncode == 0, done.stderr
    return done.stdout


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
    (root / "notes.txt").write_text("not a picture")
    return root


@pytest.fixture(scope="module")
def single(pictures, tmp_path_factory):
    out = tmp_path_factory.mktemp("single")
    dataset(pictures, out, *ARGS, "--workers", "0")
    return out


def test_cluster_equals_single_process_and_module(qk, pictures, single, tmp_path):
    summary = dataset(pictures, tmp_path, *ARGS, "--workers", "2")
    assert "21 pictures" in summary
    shards = sorted(p.name for p in single.glob("shard-*.npy"))
    assert shards == ["shard-00000.npy", "shard-00001.npy", "shard-00002.npy",
                      "shard-00003.npy"]
    for name in shards + ["index.csv", "errors.csv"]:
        assert (tmp_path / name).read_bytes() == (single / name).read_bytes(), name

    rows = list(csv.DictReader((single / "index.csv").open()))
    assert len(rows) == 20
    manifest = json.loads((single / "manifest.json").read_text())
    assert manifest["complete"] and manifest["rows"] == 20 and manifest["errors"] == 1
    assert manifest["kit_version"] == "%d.%d" % qk.kit_version
    for row in rows:
        pic = qk.read_picture(str(pictures / row["source"]))
        h, w = pic.shape[:2]
        assert row["size"] == f"{w}x{h}"
        even = np.pad(pic, ((0, h % 2), (0, w % 2)) + ((0, 0),) * (pic.ndim - 2), mode="edge")
        frame = qk.make_frame(even, "nv21")
        expected = qk.preprocess(frame, "nv21", "rotate90r|mirror", crop=(2, 1, 30, 26),
                                 size=(24, 20), bgr=True)
        got = np.load(single / row["shard"])[int(row["row"])]
        np.testing.assert_array_equal(got, expected, err_msg=row["source"])

    errors = list(csv.DictReader((single / "errors.csv").open()))
    assert [e["source"] for e in errors] == ["b/broken.png"]
    assert errors[0]["error"].startswith("cannot decode PNG")


def test_resume_rewrites_only_missing_or_damaged_shards(pictures, single, tmp_path):
    for f in single.iterdir():
        (tmp_path / f.name).write_bytes(f.read_bytes())
    (tmp_path / "shard-00001.npy").unlink()
    damaged = bytearray((tmp_path / "shard-00003.npy").read_bytes())
    damaged[-1] ^= 1
    (tmp_path / "shard-00003.npy").write_bytes(bytes(damaged))
    kept = {n: (tmp_path / n).stat().st_mtime_ns for n in ("shard-00000.npy", "shard-00002.npy")}

    summary = dataset(pictures, tmp_path, *ARGS, "--workers", "0", "--resume")
    assert "2 shards kept" in summary
    for name, mtime in kept.items():
        assert (tmp_path / name).stat().st_mtime_ns == mtime, name
    for name in ["shard-00001.npy", "shard-00003.npy", "index.csv", "errors.csv"]:
        assert (tmp_path / name).read_bytes() == (single / name).read_bytes(), name
