#!/usr/bin/env python3
"""A detector's float, letterboxed input from a 1080p camera frame: the kit's
one call against the OpenCV recipe users write, same frames, one process.

    taskset -c 1 python3 python/bench/float_letterbox.py [--repeat 200]

Per frame (NV21 and BGRA, 1920x1080 as stored, a quarter turn pending, a
800x1200 crop of the upright view, 3x256x256 float32 planes normalised per
channel, letterboxed with pad 114), medians:
  kit      qvn_kit.preprocess(..., dtype=numpy.float32, mean, std,
           letterbox=114, out=one row of a batch): one pass;
  uint8    the same call for bytes (what the float output adds to it);
  recipe   cv2.cvtColor to R,G,B, crop by slicing, cv2.rotate, cv2.resize
           (bilinear) to the fitted size, cv2.copyMakeBorder, then
           cv2.dnn.blobFromImage with the mean and one scale (it takes no
           per-channel std) and, as "recipe+std", the per-channel division
           in NumPy on top of it; each step timed.
Run pinned to one core (taskset) on a quiet machine. The two sides do not
give the same values (the kit keeps the format's own YUV weights and
resizes before the colour conversion); they do the same work.
"""
import argparse
import statistics
import time

import cv2
import numpy as np

import qvn_kit

MEAN = (123.675, 116.28, 103.53)
STD = (58.395, 57.12, 57.375)
SIZE = 256
PAD = 114
CROP = (140, 360, 800, 1200)  # x, y, w, h of the upright (1080x1920) view


def frames():
    rng = np.random.default_rng(1)
    y, x = np.mgrid[0:1080, 0:1920]
    pic = np.stack([x * 255 // 1919, y * 255 // 1079, (x + y) % 256], -1)
    pic = np.clip(pic + rng.integers(-20, 21, pic.shape), 0, 255).astype(np.uint8)
    return {"nv21": (qvn_kit.make_frame(pic, "nv21"), cv2.COLOR_YUV2RGB_NV21),
            "bgra": (qvn_kit.make_frame(pic, "bgra"), cv2.COLOR_BGRA2RGB)}


def recipe(frame, code, steps):
    t0 = time.perf_counter()
    rgb = cv2.cvtColor(frame, code)
    t1 = time.perf_counter()
    # The same region of the stored frame (800 rows, 1200 columns), cut
    # before the turn so that the turn moves only the crop.
    x, y, w, h = CROP
    part = rgb[1080 - x - w:1080 - x, y:y + h]
    upright = cv2.rotate(part, cv2.ROTATE_90_CLOCKWISE)
    t2 = time.perf_counter()
    ph, pw = upright.shape[:2]
    scale = min(SIZE / pw, SIZE / ph)
    nw, nh = max(1, round(pw * scale)), max(1, round(ph * scale))
    small = cv2.resize(upright, (nw, nh), interpolation=cv2.INTER_LINEAR)
    t3 = time.perf_counter()
    left, top = (SIZE - nw) // 2, (SIZE - nh) // 2
    boxed = cv2.copyMakeBorder(small, top, SIZE - nh - top, left, SIZE - nw - left,
                               cv2.BORDER_CONSTANT, value=(PAD, PAD, PAD))
    t4 = time.perf_counter()
    blob = cv2.dnn.blobFromImage(boxed, 1.0 / STD[1], mean=MEAN, swapRB=False)
    t5 = time.perf_counter()
    blob[0] *= np.float32(STD[1]) / np.asarray(STD, np.float32)[:, None, None]
    t6 = time.perf_counter()
    for name, d in (("cvtColor", t1 - t0), ("crop+rotate", t2 - t1), ("resize", t3 - t2),
                    ("copyMakeBorder", t4 - t3), ("blobFromImage", t5 - t4),
                    ("per-channel std", t6 - t5)):
        steps.setdefault(name, []).append(d)
    return t5 - t0, t6 - t0


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--repeat", type=int, default=200)
    args = ap.parse_args()
    batch = np.empty((1, 3, SIZE, SIZE), np.float32)
    bytes_out = np.empty((3, SIZE, SIZE), np.uint8)
    for fmt, (frame, code) in frames().items():
        kit, u8, rec, rec_std, steps = [], [], [], [], {}
        for _ in range(args.repeat):
            t0 = time.perf_counter()
            qvn_kit.preprocess(frame, fmt, "rotate90r", crop=CROP, dtype=np.float32, mean=MEAN,
                               std=STD, letterbox=PAD, out=batch[0])
            t1 = time.perf_counter()
            qvn_kit.preprocess(frame, fmt, "rotate90r", crop=CROP, letterbox=PAD,
                               transform=False, out=bytes_out)
            t2 = time.perf_counter()
            kit.append(t1 - t0)
            u8.append(t2 - t1)
            a, b = recipe(frame, code, steps)
            rec.append(a)
            rec_std.append(b)
        med = {k: statistics.median(v) * 1e3 for k, v in
               (("kit float", kit), ("kit uint8", u8), ("recipe", rec), ("recipe+std", rec_std))}
        print(f"{fmt}: " + ", ".join(f"{k} {v:.3f} ms" for k, v in med.items()))
        print("   recipe steps: " + ", ".join(
            f"{k} {statistics.median(v) * 1e3:.3f}" for k, v in steps.items()))
        print(f"   kit float / recipe {med['kit float'] / med['recipe']:.3f}, "
              f"/ recipe+std {med['kit float'] / med['recipe+std']:.3f}; "
              f"float / uint8 {med['kit float'] / med['kit uint8']:.3f}")


if __name__ == "__main__":
    main()
