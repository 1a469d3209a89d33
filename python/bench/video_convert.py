#!/usr/bin/env python3
"""A decoded video frame to a 3x256x256 network input: the kit's one pass
over the decoder's planes against the recipe users write today, in one run.

    taskset -c 1 python3 python/bench/video_convert.py [--frames 300] [--video vtest.avi]

Frames are decoded by PyAV (yuv420p). Per frame, in one process, medians:
  decode  PyAV's decode of the next frame;
  kit     qvn_kit.preprocess of the (y, u, v) planes as PyAV holds them
          (row strides kept): crop, bilinear resize, quarter turn, BT.601
          limited range to R,G,B planes, one pass;
  recipe  frame.to_ndarray("rgb24") (libswscale), crop by slicing,
          cv2.resize (bilinear), cv2.rotate, HWC -> CHW copy; each step timed.
Run pinned to one core (taskset) on a quiet machine.
"""
import argparse
import os
import statistics
import time

import av
import cv2
import numpy as np

import qvn_kit

CROP = (96, 40, 560, 520)  # x, y, w, h of the 768x576 frame
SIZE = 256


def planes_of(frame):
    h, w = frame.height, frame.width
    return tuple(np.frombuffer(p, np.uint8).reshape(-1, p.line_size)[:ph, :pw]
                 for p, ph, pw in zip(frame.planes, (h, h // 2, h // 2), (w, w // 2, w // 2)))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--frames", type=int, default=300)
    ap.add_argument("--video", default="/usr/share/doc/opencv-doc/examples/data/vtest.avi")
    args = ap.parse_args()
    cv2.setNumThreads(1)
    t = {k: [] for k in ("decode", "kit", "rgb24", "crop", "resize", "rotate", "chw")}
    # The thread's CPU time of the same steps: what other processes on the
    # core took is left out (a shared machine).
    cpu = {k: [] for k in ("decode", "kit", "recipe")}
    out = np.empty((3, SIZE, SIZE), np.uint8)
    x, y, w, h = CROP
    with av.open(args.video) as container:
        stream = container.streams.video[0]
        stream.thread_type = "NONE"
        frames = container.decode(stream)
        for _ in range(args.frames):
            c0, t0 = time.thread_time(), time.perf_counter()
            frame = next(frames, None)
            t1, c1 = time.perf_counter(), time.thread_time()
            if frame is None:
                break
            t["decode"].append(t1 - t0)
            cpu["decode"].append(c1 - c0)
            # The kit: one pass from the decoder's planes.
            c0, t0 = time.thread_time(), time.perf_counter()
            qvn_kit.preprocess(planes_of(frame), "i420", "rotate90l", crop=CROP,
                               size=(SIZE, SIZE), fast=True, out=out)
            t1, c1 = time.perf_counter(), time.thread_time()
            t["kit"].append(t1 - t0)
            cpu["kit"].append(c1 - c0)
            # The recipe. The kit's crop is of the upright (turned) view;
            # the recipe crops the frame first, then turns: the same work.
            c0, t0 = time.thread_time(), time.perf_counter()
            rgb = frame.to_ndarray(format="rgb24")
            t1 = time.perf_counter()
            part = rgb[y:y + h, x:x + w]
            t2 = time.perf_counter()
            small = cv2.resize(part, (SIZE, SIZE), interpolation=cv2.INTER_LINEAR)
            t3 = time.perf_counter()
            turned = cv2.rotate(small, cv2.ROTATE_90_CLOCKWISE)
            t4 = time.perf_counter()
            chw = np.ascontiguousarray(turned.transpose(2, 0, 1))
            t5, c1 = time.perf_counter(), time.thread_time()
            cpu["recipe"].append(c1 - c0)
            assert chw.shape == out.shape
            for k, a, b in (("rgb24", t0, t1), ("crop", t1, t2), ("resize", t2, t3),
                            ("rotate", t3, t4), ("chw", t4, t5)):
                t[k].append(b - a)
    med = {k: statistics.median(v) * 1e3 for k, v in t.items()}
    recipe = sum(med[k] for k in ("rgb24", "crop", "resize", "rotate", "chw"))
    print(f"{len(t['kit'])} frames of {os.path.basename(args.video)} -> 3x{SIZE}x{SIZE}, "
          f"crop {CROP}, quarter turn; medians in ms, load average {os.getloadavg()[0]:.2f}")
    print(f"  decode (PyAV)                 {med['decode']:.3f}")
    print(f"  kit convert (planes, 1 pass)  {med['kit']:.3f}")
    print(f"  recipe: to_ndarray rgb24 {med['rgb24']:.3f}, crop {med['crop']:.3f}, "
          f"resize {med['resize']:.3f}, rotate {med['rotate']:.3f}, CHW {med['chw']:.3f}; "
          f"total {recipe:.3f}")
    print(f"  kit / recipe conversion       {med['kit'] / recipe:.3f}")
    print(f"  kit share of decode + convert {med['kit'] / (med['kit'] + med['decode']):.3f}")
    c = {k: statistics.median(v) * 1e3 for k, v in cpu.items()}
    print(f"  CPU time: decode {c['decode']:.3f}, kit {c['kit']:.3f}, recipe {c['recipe']:.3f}; "
          f"kit / recipe {c['kit'] / c['recipe']:.3f}, kit share "
          f"{c['kit'] / (c['kit'] + c['decode']):.3f}")


if __name__ == "__main__":
    main()
