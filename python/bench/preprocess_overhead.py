#!/usr/bin/env python3
"""Per-call overhead of qvn_kit.preprocess against the same C++ call.

    taskset -c 1 python3 python/bench/preprocess_overhead.py [--side 256] [--rounds 21]

Both sides convert the same NV21 frame, turned (rotate90r), into a
3 x side x side tensor: C++ through libpreprocess_overhead.so (ctypes, one
call runs a whole loop), Python through qvn_kit.preprocess with out=. The
rounds alternate in one process, so both see the same machine load. Prints
the medians of both and the median of the per-round differences.
"""
import argparse
import ctypes
import os
import statistics
import time
from pathlib import Path

import numpy as np

import qvn_kit


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--side", type=int, default=256)
    ap.add_argument("--rounds", type=int, default=21)
    ap.add_argument("--calls", type=int, default=0, help="calls a round (default: by side)")
    ap.add_argument("--lib", default=str(Path(os.environ.get(
        "QVN_BUILD_DIR", Path(__file__).resolve().parents[2] / "build" / "release"))
        / "python" / "libpreprocess_overhead.so"))
    args = ap.parse_args()
    side = args.side
    calls = args.calls or max(200, 2_000_000 // (side * side))

    lib = ctypes.CDLL(args.lib)
    lib.qvn_bench_preprocess.restype = ctypes.c_double
    lib.qvn_bench_preprocess.argtypes = [ctypes.c_int, ctypes.c_int]

    i = np.arange(side * side * 3 // 2)
    frame = ((i * 7 + i // 251) & 255).astype(np.uint8).reshape(side * 3 // 2, side)
    out = np.empty((3, side, side), np.uint8)
    size, pre = (side, side), qvn_kit.preprocess

    def python_round():
        start = time.perf_counter()
        for _ in range(calls):
            pre(frame, "nv21", 1, size=size, out=out)
        return (time.perf_counter() - start) / calls * 1e6

    cpp, py = [], []
    lib.qvn_bench_preprocess(side, calls)  # warm-up
    python_round()
    for _ in range(args.rounds):
        cpp.append(lib.qvn_bench_preprocess(side, calls))
        py.append(python_round())
    diff = [p - c for p, c in zip(py, cpp)]
    print(f"{side}x{side} nv21 rotate90r -> 3x{side}x{side}, {args.rounds} rounds x {calls} calls")
    print(f"  C++    median {statistics.median(cpp):9.3f} us/call (min {min(cpp):.3f})")
    print(f"  Python median {statistics.median(py):9.3f} us/call (min {min(py):.3f})")
    print(f"  overhead: median of round differences {statistics.median(diff):.3f} us, "
          f"min {min(diff):.3f} us")


if __name__ == "__main__":
    main()
