"""The way one picture reaches its row of a shard.

A 4:2:0 YCbCr JPEG (what cameras and most photo software write) is decoded
to its own Y, Cb, Cr planes and converted as a three-plane frame in BT.601
full range, which is what JFIF stores: the JPEG's YCbCr stands in for the
camera's YUV, with no chroma upsampling, colour conversion or RGB round trip
on the way. Every other picture (PNG; JPEG in 4:4:4, 4:2:2, gray, CMYK, ...)
and every picture with `--jpeg rgb` takes the route data sets were made
with before: the picture decoded to RGB, made into the `--format` frame as
`qvn-kit preprocess` makes it, then converted.
"""

import numpy as np

from .failures import UsageError

JPEG_ROUTES = ("planes", "rgb")
REDUCE_FACTORS = (1, 2, 4, 8)
# What a manifest written before the routes (and before float shards and
# letterboxing) existed was made with.
ROUTE_BEFORE = {"jpeg": "rgb", "reduce": 1, "dtype": "uint8", "mean": None, "std": None,
                "letterbox": None}


def float_lists(args, channels):
    """--mean and --std as lists of `channels` floats (None for bytes); the
    module checks their values."""
    if args.dtype != "float32":
        if args.mean is not None or args.std is not None:
            raise UsageError("--mean and --std need --dtype float32")
        return None, None
    lists = []
    for name, text, default in (("--mean", args.mean, 0.0), ("--std", args.std, 1.0)):
        if text is None:
            lists.append([default] * channels)
            continue
        try:
            values = [float(v) for v in text.split(",")]
        except ValueError:
            values = []
        if len(values) != channels:
            raise UsageError(f"{name} {text!r} is not {channels} comma-separated numbers")
        lists.append(values)
    return lists[0], lists[1]


def convert_frame(qvn_kit, frame, options, out=None, crop=None, **colour):
    """preprocess with the options; a tuple of planes is a three-plane
    frame, anything else a --format frame. `crop` replaces --crop."""
    c, h, w = options["tensor"]
    if out is not None and options["gray"]:
        out = out[0]
    fmt = "i420" if isinstance(frame, tuple) else options["format"]
    tensor = {}
    if options.get("dtype", "uint8") == "float32":
        tensor = {"dtype": np.float32, "mean": options["mean"], "std": options["std"]}
    if options.get("letterbox") is not None:
        tensor["letterbox"] = options["letterbox"]
    return qvn_kit.preprocess(frame, fmt, options["orient"],
                              crop=options["crop"] if crop is None else crop, size=(h, w),
                              bgr=options["bgr"], gray=options["gray"], pad=options["pad"],
                              fast=True, out=out, **colour, **tensor)


def convert_picture(qvn_kit, path, options, out):
    """Converts the picture at `path` into `out` (one row of a shard);
    returns its (width, height). ValueError for a picture that cannot be
    read."""
    if options.get("jpeg") == "planes":
        size = convert_jpeg_planes(qvn_kit, path, options, out)
        if size is not None:
            return size
    pic = qvn_kit.read_picture(path)
    # make_frame repeats the last column or row of an odd picture, as the
    # tool does: 4:2:0 frames need even sides.
    frame = qvn_kit.make_frame(pic, options["format"])
    convert_frame(qvn_kit, frame, options, out)
    return int(pic.shape[1]), int(pic.shape[0])


def convert_jpeg_planes(qvn_kit, path, options, out):
    """The planes route; None for a picture that is not a 4:2:0 YCbCr JPEG."""
    header = qvn_kit.jpeg_header(path)
    if header is None or header[2] != "4:2:0" or header[3] != "YCbCr":
        return None
    width, height = header[0], header[1]
    factor = reduce_factor(options, width, height)
    planes = qvn_kit.read_jpeg_planes(path, factor)
    if planes is None:  # smaller than 2x2 at that scale
        return None
    crop = options["crop"]
    if crop is not None and factor > 1:
        crop = scaled_crop(crop, factor)
    convert_frame(qvn_kit, planes, options, out, crop=crop, matrix="bt601", range="full")
    return width, height


def reduce_factor(options, width, height):
    """The DCT scale 1/f to decode at: the largest f up to --reduce for which
    the crop (the whole picture without --crop) is at least f times the
    tensor on both sides. Without --crop the turn of --orient is not looked
    at: the picture's shorter side must be f times the tensor's longer one."""
    f = options.get("reduce", 1)
    if f == 1:
        return 1
    _, th, tw = options["tensor"]
    if options["crop"] is not None:
        sides = ((options["crop"][2], tw), (options["crop"][3], th))
    else:
        sides = ((min(width, height), max(th, tw)),)
    while f > 1 and any(side < f * t for side, t in sides):
        f //= 2
    return f


def scaled_crop(crop, f):
    """The crop box at scale 1/f: both edges of each side rounded to the
    nearest pixel of the scaled picture (halves up), the size at least 1."""
    def edge(v):
        return (2 * v + f) // (2 * f)

    x, y, w, h = crop
    x0, y0 = edge(x), edge(y)
    return [x0, y0, max(1, edge(x + w) - x0), max(1, edge(y + h) - y0)]
