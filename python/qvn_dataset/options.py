"""The options of `qvn-dataset prepare`: parsed, checked, and turned into
the record of what decides the bytes (stored in the manifest)."""
import argparse
import math

import numpy as np

from .failures import EXIT_CLUSTER, EXIT_CODES_HELP, Failure, UsageError
from .route import JPEG_ROUTES, REDUCE_FACTORS, convert_frame, float_lists

DEFAULT_SHARD = 1024
# The tool's --max-pixels default: the largest tensor plane it makes.
MAX_TENSOR_PIXELS = 1 << 26


def parse_args(argv):
    ap = argparse.ArgumentParser(
        prog="qvn-dataset",
        description="Prepare a training set with the device's bytes (libqvn_kit over Dask).")
    sub = ap.add_subparsers(dest="command", required=True)
    p = sub.add_parser("prepare", help="convert every PNG/JPEG under INPUT_DIR into shards",
                       epilog=EXIT_CODES_HELP,
                       formatter_class=argparse.RawDescriptionHelpFormatter)
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
    p.add_argument("--jpeg", default="planes", choices=JPEG_ROUTES,
                   help="planes: 4:2:0 JPEGs go from their own YCbCr planes to the tensor "
                        "(BT.601 full range); rgb: through RGB and a --format frame, as data "
                        "sets were made before (planes)")
    p.add_argument("--reduce", type=int, default=1, choices=REDUCE_FACTORS,
                   help="with --jpeg planes, decode at 1/2, 1/4 or 1/8 scale where the crop "
                        "is at least that much larger than the tensor (1: full size)")
    p.add_argument("--dtype", default="uint8", choices=["uint8", "float32"],
                   help="shard values: bytes, or float32 (value - mean) / std per channel")
    p.add_argument("--mean", default=None,
                   help="with --dtype float32: R,G,B means (one value with --gray; 0)")
    p.add_argument("--std", default=None,
                   help="with --dtype float32: R,G,B standard deviations, finite and "
                        "non-zero (1)")
    p.add_argument("--letterbox", type=int, default=None, metavar="PAD",
                   help="keep the crop's aspect ratio: fit it inside the tensor, centred, "
                        "and pad the rest with this byte 0..255 (before normalisation)")
    p.add_argument("--shard", type=int, default=None,
                   help=f"pictures a shard ({DEFAULT_SHARD}, or fewer where a shard of "
                        f"{DEFAULT_SHARD} would pass --max-shard-mb)")
    p.add_argument("--max-shard-mb", type=int, default=2048,
                   help="largest shard in MiB, which a worker holds in memory (2048)")
    p.add_argument("--annotations", default=None, metavar="FILE",
                   help="boxes and keypoints of the pictures, in pixels: COCO-style JSON, or "
                        "CSV lines path,x,y,w,h[,label] (.json is JSON, .csv is CSV, any other "
                        "name is JSON when it starts with '{'); their labels go to "
                        "labels.jsonl in tensor pixels")
    p.add_argument("--per-object", type=float, default=None, metavar="SCALE",
                   help="with --annotations: one sample per object, its box extended by SCALE "
                        "about its centre and cut as the device cuts a detected box")
    p.add_argument("--square", action="store_true",
                   help="with --per-object: the crop is the square of side max(w, h) * SCALE")
    where = p.add_mutually_exclusive_group()
    where.add_argument("--workers", type=int, default=None,
                       help="processes of a local Dask cluster (default: the machine's "
                            "cores); 0 converts in this process without Dask")
    where.add_argument("--scheduler", default=None,
                       help="address of a running Dask scheduler, e.g. tcp://host:8786")
    p.add_argument("--wait", type=float, default=30.0,
                   help="seconds to wait for the scheduler to answer, then for its first "
                        "worker, and for one to come back should all leave (30)")
    p.add_argument("--resume", action="store_true",
                   help="keep the shards a previous run finished (checked by their SHA-256, and "
                        "their pictures by size and modification time)")
    p.add_argument("--progress", choices=["auto", "always", "never"], default="auto",
                   help="progress bar on stderr (auto: when stderr is a terminal)")
    return ap.parse_args(argv)


def conversion_options(args):
    """The options that decide the bytes, checked; stored in the manifest."""
    try:
        import qvn_kit
    except ImportError as e:
        raise Failure(f"cannot import qvn_kit ({e}): is the kit installed?",
                      EXIT_CLUSTER) from None

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
    if h * w > MAX_TENSOR_PIXELS:
        raise UsageError(f"--tensor {tensor}: tensor of {w}x{h} pixels is above the limit "
                         f"of {MAX_TENSOR_PIXELS} pixels")
    crop = None
    if args.crop:
        try:
            crop = [int(v) for v in args.crop.split(",")]
        except ValueError:
            crop = []
        if len(crop) != 4:
            raise UsageError(f"--crop {args.crop!r} is not x,y,w,h")
    mean, std = float_lists(args, c)
    options = {"format": args.format, "orient": args.orient, "tensor": [c, h, w],
               "crop": crop, "bgr": args.bgr, "gray": args.gray, "pad": args.pad,
               "jpeg": args.jpeg, "reduce": args.reduce, "dtype": args.dtype,
               "mean": mean, "std": std, "letterbox": args.letterbox,
               "shard": shard_rows(args, c * h * w * (4 if args.dtype == "float32" else 1),
                                   tensor)}
    if args.annotations is not None:
        options["labels"] = label_options(args)
    elif args.per_object is not None or args.square:
        raise UsageError("--per-object and --square need --annotations")
    if args.reduce != 1 and args.jpeg != "planes":
        raise UsageError("--reduce decodes JPEG planes: it needs --jpeg planes")
    # Let the module refuse bad values now rather than once a picture.
    probe = qvn_kit.make_frame(np.zeros((2, 2, 3), np.uint8), args.format)
    try:
        convert_frame(qvn_kit, probe, options)
    except (TypeError, ValueError, OverflowError) as e:
        raise UsageError(str(e)) from None
    return options


def label_options(args):
    """What decides the labels; the annotations' digest is added once the
    file is read."""
    if args.per_object is None:
        if args.square:
            raise UsageError("--square needs --per-object")
    elif not (math.isfinite(args.per_object) and args.per_object > 0):
        raise UsageError(f"--per-object {args.per_object:g}: the scale must be a positive "
                         "number")
    elif args.crop:
        raise UsageError("--per-object cuts a crop per object: it excludes --crop")
    return {"annotations": None, "per_object": args.per_object, "square": args.square}


def shard_rows(args, row_bytes, tensor):
    """Pictures a shard: --shard, or the default cut so that the batch a
    worker allocates stays within --max-shard-mb; checked before any
    allocation."""
    if args.max_shard_mb < 1:
        raise UsageError("--max-shard-mb must be at least 1")
    limit = args.max_shard_mb << 20
    fit = limit // row_bytes
    if fit < 1:
        raise UsageError(f"--tensor {tensor}: one row takes {row_bytes >> 20} MiB, more than "
                         f"--max-shard-mb {args.max_shard_mb}")
    if args.shard is None:
        return min(DEFAULT_SHARD, fit)
    if args.shard < 1:
        raise UsageError("--shard must be at least 1")
    if args.shard > fit:
        raise UsageError(f"--shard {args.shard} rows of {tensor} take "
                         f"{args.shard * row_bytes >> 20} MiB, more than --max-shard-mb "
                         f"{args.max_shard_mb}: use --shard {fit} or fewer")
    return args.shard


def check_where(args):
    """--workers, --scheduler and --wait, before anything is written."""
    if args.workers is not None and args.workers < 0:
        raise UsageError(f"--workers {args.workers}: give a number of processes, or 0 to "
                         "convert in this process without Dask")
    if not (math.isfinite(args.wait) and args.wait > 0):
        raise UsageError("--wait must be a positive number of seconds")
    if args.scheduler is not None:
        try:
            from distributed.comm.addressing import get_address_host_port
        except ImportError as e:
            raise Failure(f"--scheduler needs Dask ({e}): install python3-distributed",
                          EXIT_CLUSTER) from None
        try:
            hostname, port = get_address_host_port(args.scheduler)
        except ValueError:
            hostname, port = "", 0
        if not hostname or not 0 < port < 65536:
            raise UsageError(f"--scheduler {args.scheduler!r} is not an address like "
                             "tcp://HOST:8786")
