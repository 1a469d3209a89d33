#!/usr/bin/env python3
"""Pictures per second of `qvn-dataset prepare` for 1, 2, ... all cores,
against a loop of one `qvn-kit preprocess` process per picture.

    python3 python/bench/dataset_speed.py [--count 200] [--dir /tmp/qvn-1080p]

Generates COUNT 1920x1080 PNGs (gradients and noise) once, then times each
configuration on the same folder: nv21, rotate90r, 3x256x256. Every run
writes to a fresh output folder; the rate excludes starting the Dask cluster
(printed separately) and counts every picture.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import zlib
import struct
from pathlib import Path

import numpy as np

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("QVN_BUILD_DIR", ROOT / "build" / "release"))
OPTS = ["--format", "nv21", "--orient", "rotate90r", "--tensor", "3x256x256"]


def write_png(path, pixels):
    h, w = pixels.shape[:2]
    rows = b"".join(b"\0" + pixels[r].tobytes() for r in range(h))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(
            ">I", zlib.crc32(kind + data) & 0xFFFFFFFF)

    Path(path).write_bytes(b"\x89PNG\r\n\x1a\n" +
                           chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0)) +
                           chunk(b"IDAT", zlib.compress(rows, 1)) + chunk(b"IEND", b""))


def generate(folder, count):
    folder.mkdir(parents=True, exist_ok=True)
    have = len(list(folder.glob("*.png")))
    rng = np.random.default_rng(0)
    y, x = np.mgrid[0:1080, 0:1920]
    base = np.stack([x * 255 // 1919, y * 255 // 1079, (x + y) % 256], -1)
    for i in range(have, count):
        noise = rng.integers(-12, 13, base.shape)
        write_png(folder / f"p{i:04d}.png", np.clip(base + noise, 0, 255).astype(np.uint8))


def run_dataset(folder, workers):
    out = Path(tempfile.mkdtemp(prefix="qvn-ds-"))
    env = dict(os.environ, PYTHONPATH=os.pathsep.join([str(BUILD / "python"), str(ROOT / "python")]))
    done = subprocess.run([sys.executable, "-m", "qvn_dataset", "prepare", folder, out, *OPTS,
                           "--shard", "16", "--workers", str(workers)],
                          capture_output=True, text=True, env=env, check=True)
    shutil.rmtree(out)
    m = re.search(r"(\d+) pictures in ([\d.]+) s.*?([\d.]+) s of it starting", done.stdout)
    count, seconds, startup = int(m.group(1)), float(m.group(2)), float(m.group(3))
    return count / (seconds - startup), startup


def run_tool_loop(folder):
    pictures = sorted(folder.glob("*.png"))
    out = Path(tempfile.mkdtemp(prefix="qvn-tool-"))
    start = time.perf_counter()
    for i, p in enumerate(pictures):
        subprocess.run([BUILD / "tools" / "qvn-kit", "preprocess", p, out / f"{i}.npy", *OPTS],
                       check=True)
    seconds = time.perf_counter() - start
    shutil.rmtree(out)
    return len(pictures) / seconds


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--count", type=int, default=200)
    ap.add_argument("--dir", default="/tmp/qvn-1080p")
    args = ap.parse_args()
    folder = Path(args.dir)
    generate(folder, args.count)
    cores = os.cpu_count() or 1
    print(f"{args.count} pictures 1920x1080 PNG -> nv21 rotate90r 3x256x256, {cores} cores, "
          f"load average {os.getloadavg()[0]:.2f}")
    print(f"  qvn-kit loop, one process a picture: {run_tool_loop(folder):7.2f} pictures/s")
    rate0, _ = run_dataset(folder, 0)
    print(f"  qvn-dataset --workers 0 (in process):  {rate0:7.2f} pictures/s")
    for workers in sorted({1, 2, cores}):
        rate, startup = run_dataset(folder, workers)
        print(f"  qvn-dataset --workers {workers}:             {rate:7.2f} pictures/s "
              f"(cluster start {startup:.1f} s)")
    print(f"  load average after: {os.getloadavg()[0]:.2f}")


if __name__ == "__main__":
    main()
