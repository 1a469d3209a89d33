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


def convert_frame(qvn_kit, frame, options, out=None, crop=None, transform=False, **colour):
    """preprocess with the options; a tuple of planes is a three-plane
    frame, anything else a --format frame. `crop` replaces --crop. With
    `transform` it returns (tensor, TensorTransform): the map of the very
    conversion that wrote the tensor."""
    c, h, w = options["tensor"]
    if out is not None and options["gray"]:
        out = out[0]
    fmt = "i420" if isinstance(frame, tuple) else options["format"]
    tensor = {}
    if options.get("dtype", "uint8") == "float32":
        tensor = {"dtype": np.float32, "mean": options["mean"], "std": options["std"]}
    if options.get("letterbox") is not None:
        tensor["letterbox"] = options["letterbox"]
    if transform:
        tensor["transform"] = True
    return qvn_kit.preprocess(frame, fmt, options["orient"],
                              crop=options["crop"] if crop is None else crop, size=(h, w),
                              bgr=options["bgr"], gray=options["gray"], pad=options["pad"],
                              fast=True, out=out, **colour, **tensor)


class Picture:
    """A picture read and made into the frame a conversion takes: `frame`
    (an array, or a tuple of JPEG planes decoded at 1/`factor`), its colour
    description, the picture's (width, height) and `extent`, the frame's
    (width, height) in picture pixels (a 4:2:0 frame of an odd picture
    repeats its last column or row, a reduced decode covers whole blocks)."""

    def __init__(self, frame, colour, size, factor):
        self.frame, self.colour, self.size, self.factor = frame, colour, size, factor
        if isinstance(frame, tuple):
            fw, fh = frame[0].shape[1], frame[0].shape[0]
        else:
            fw, fh = frame.shape[1], frame.shape[0] if frame.ndim == 3 else frame.shape[0] * 2 // 3
        self.extent = (fw * factor, fh * factor)

    def convert(self, qvn_kit, options, out, crop=None, transform=False):
        """Converts into `out` through `crop` (picture pixels of the upright
        view; None: --crop)."""
        crop = options["crop"] if crop is None else crop
        if crop is not None and self.factor > 1:
            crop = scaled_crop(crop, self.factor)
        return convert_frame(qvn_kit, self.frame, options, out, crop=crop, transform=transform,
                             **self.colour)


def read_picture(qvn_kit, path, options, crop=None):
    """The Picture at `path` for a conversion through `crop` (None: --crop),
    which decides how far a JPEG may be reduced. ValueError for a picture
    that cannot be read."""
    if options.get("jpeg") == "planes":
        header = qvn_kit.jpeg_header(path)
        if header is not None and header[2] == "4:2:0" and header[3] == "YCbCr":
            width, height = header[0], header[1]
            factor = reduce_factor(options, width, height,
                                   options["crop"] if crop is None else crop)
            planes = qvn_kit.read_jpeg_planes(path, factor)
            if planes is not None:  # else smaller than 2x2 at that scale
                return Picture(planes, {"matrix": "bt601", "range": "full"}, (width, height),
                               factor)
    pic = qvn_kit.read_picture(path)
    # make_frame repeats the last column or row of an odd picture, as the
    # tool does: 4:2:0 frames need even sides.
    frame = qvn_kit.make_frame(pic, options["format"])
    return Picture(frame, {}, (int(pic.shape[1]), int(pic.shape[0])), 1)


def convert_picture(qvn_kit, path, options, out):
    """Converts the picture at `path` into `out` (one row of a shard);
    returns its (width, height). ValueError for a picture that cannot be
    read."""
    pic = read_picture(qvn_kit, path, options)
    pic.convert(qvn_kit, options, out)
    return pic.size


def reduce_factor(options, width, height, crop):
    """The DCT scale 1/f to decode at: the largest f up to --reduce for which
    the crop (the whole picture without --crop) is at least f times the
    tensor on both sides. Without --crop the turn of --orient is not looked
    at: the picture's shorter side must be f times the tensor's longer one."""
    f = options.get("reduce", 1)
    if f == 1:
        return 1
    _, th, tw = options["tensor"]
    if crop is not None:
        sides = ((crop[2], tw), (crop[3], th))
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
