#!/usr/bin/env python3
"""Prepare a batch of network inputs from one picture with the device's bytes.

    PYTHONPATH=<prefix>/lib/python3/dist-packages \\
        python3 examples/prepare_batch.py [PICTURE.png|.jpg] [--frames 512] [--threads 4]

Reads the picture with the command-line tool's reader (or makes a test
picture when none is given), turns it into an NV21 frame exactly as
`qvn-kit preprocess` does, and converts the frame, turned sideways and
mirrored as a phone camera delivers it, into a batch of 3x256x256 inputs on
a thread pool. The module releases the GIL inside every conversion, so the
threads run on separate cores. Prints frames per second for one thread and
for the pool, and checks that both give the same bytes.
"""
import argparse
import os
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np

import qvn_kit


def test_picture(h=1080, w=1920):
    y, x = np.mgrid[0:h, 0:w]
    return np.stack([x * 255 // (w - 1), y * 255 // (h - 1), (x ^ y) & 255], -1).astype(np.uint8)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("picture", nargs="?")
    ap.add_argument("--frames", type=int, default=512)
    ap.add_argument("--threads", type=int, default=min(4, os.cpu_count() or 1))
    args = ap.parse_args()

    pic = qvn_kit.read_picture(args.picture) if args.picture else test_picture()
    h, w = pic.shape[:2]
    pic = pic[: h - h % 2, : w - w % 2]  # NV21 needs an even size
    frame = qvn_kit.make_frame(pic, "nv21")
    # The camera delivers the frame sideways and mirrored; the conversion
    # undoes that, crops a centred square and resizes it to 256 x 256.
    side = min(pic.shape[:2])
    crop = ((pic.shape[0] - side) // 2, (pic.shape[1] - side) // 2, side, side)
    batch = np.empty((args.frames, 3, 256, 256), np.uint8)

    def convert(i):
        qvn_kit.preprocess(frame, "nv21", "rotate90r|mirror", crop=crop, size=(256, 256),
                           out=batch[i])

    convert(0)  # warm-up
    start = time.perf_counter()
    for i in range(args.frames):
        convert(i)
    one = time.perf_counter() - start
    reference = batch.copy()

    batch[:] = 0
    with ThreadPoolExecutor(args.threads) as pool:
        # The first calls on a new thread pay for its own malloc arena
        # (milliseconds each): warm the threads up before timing.
        list(pool.map(convert, range(min(args.frames, 8 * args.threads))))
        batch[:] = 0
        start = time.perf_counter()
        list(pool.map(convert, range(args.frames)))
        many = time.perf_counter() - start
    assert np.array_equal(batch, reference), "threads gave different bytes"

    print(f"picture {pic.shape[1]}x{pic.shape[0]} -> NV21 frame {frame.shape[1]}x{frame.shape[0]}"
          f" -> batch {batch.shape}")
    print(f"1 thread:  {args.frames / one:8.1f} frames/s")
    print(f"{args.threads} threads: {args.frames / many:8.1f} frames/s "
          f"({one / many:.2f}x on {os.cpu_count()} cores)")


if __name__ == "__main__":
    main()
