"""Labels that follow the pixels (runs on a worker).

Boxes and keypoints go through the TensorTransform that the conversion of
their sample returned, so they see the same crop, turn, mirror, resize and
letterbox as its pixels; nothing here knows how an orientation turns.
Annotation pixels become the transform's frame coordinates by dividing by
the frame's extent in picture pixels (route.Picture.extent).

A per-object sample is cut as a detector's box is cut on the device: the
object's box extended by SCALE about its centre (the kit's extend_box: a
square of side max(w, h) * SCALE with --square; without it, extend_box on
each axis alone, so the box keeps its aspect ratio), then handed to the
converter as a crop of the upright view, which takes it through the frame's
orientation. The box is extended in the picture as stored: a turn or mirror
maps an axis-parallel box about its centre to one of the same sides, so this
is the box the upright view would extend.
"""
import math

import numpy as np

from .route import convert_frame, read_picture


def short(v):
    """A float32 value as the shortest decimal that reads back to it, so a
    label line is the same text on every machine."""
    return float(np.format_float_positional(np.float32(v), unique=True, trim="-"))


def extended(qvn_kit, box, scale, square):
    """(x0, y0, x1, y1) of the crop around `box` [x, y, w, h]."""
    x, y, w, h = box
    if square:
        return qvn_kit.extend_box((x, y, x + w, y + h), scale)
    x0, _, x1, _ = qvn_kit.extend_box((x, y, x + w, y), scale)
    _, y0, _, y1 = qvn_kit.extend_box((x, y, x, y + h), scale)
    return x0, y0, x1, y1


def upright_crop(qvn_kit, pic, options, corners):
    """The crop (x, y, w, h) of the upright view, whole picture pixels, that
    covers `corners` (x0, y0, x1, y1) of the picture as stored. The map is
    the transform of the whole frame converted, in colour, to a 2x2 tensor:
    it takes the frame as stored to the upright view, scaled to 2x2."""
    probe = dict(options, tensor=[3, 2, 2], gray=False, crop=None, letterbox=None,
                 dtype="uint8", mean=None, std=None)
    _, t = convert_frame(qvn_kit, pic.frame, probe, transform=True, **pic.colour)
    fw, fh = pic.extent
    x0, y0, x1, y1 = corners
    up = t.boxes_to_tensor([[x0 / fw, y0 / fh, (x1 - x0) / fw, (y1 - y0) / fh]])[0] / 2
    exchanged = t.to_tensor[0][0] == 0  # a quarter turn swaps the sides
    uw, uh = (fh, fw) if exchanged else (fw, fh)

    def whole(v):
        return int(math.floor(v + 0.5))

    return [whole(up[0] * uw), whole(up[1] * uh), max(1, whole(up[2] * uw)),
            max(1, whole(up[3] * uh))]


def mapped(t, pic, objects):
    """The label fields of a sample whose conversion returned `t`: boxes
    clipped to the picture's part of the tensor (and flagged), boxes left
    with nothing inside dropped, keypoints outside it made invisible."""
    fw, fh = pic.extent
    pw, ph = pic.size
    (ex, ey, ew, eh), = t.boxes_to_tensor([[0, 0, pw / fw, ph / fh]])
    tx, ty, tw, th = t.picture
    lo = np.float32([max(ex, tx), max(ey, ty)])
    hi = np.float32([min(ex + ew, tx + tw), min(ey + eh, ty + th)])
    out = {"boxes": [], "category": [], "clipped": [], "keypoints": []}
    if not objects:
        return out
    scale = np.float64([fw, fh])
    boxes = np.float64([o["box"] for o in objects]) / np.tile(scale, 2)
    tb = t.boxes_to_tensor(boxes)
    for obj, b in zip(objects, tb):
        a = np.maximum(b[:2], lo)
        z = np.minimum(b[:2] + b[2:], hi)
        clipped = bool(np.any(a != b[:2]) or np.any(z != b[:2] + b[2:]))
        if np.any(a > z) or (clipped and np.any(a == z)):
            continue  # nothing of it reaches the tensor
        out["boxes"].append([short(v) for v in (a[0], a[1], z[0] - a[0], z[1] - a[1])])
        out["category"].append(obj["category"])
        out["clipped"].append(clipped)
        points = []
        if obj["keypoints"]:
            k = np.float64(obj["keypoints"])
            for (x, y), v in zip(t.points_to_tensor(k[:, :2] / scale), k[:, 2]):
                seen = v > 0 and lo[0] <= x <= hi[0] and lo[1] <= y <= hi[1]
                points.append([short(x), short(y), int(v) if seen else 0])
        out["keypoints"].append(points)
    return out


class Labeller:
    """Converts the samples of one shard with their labels; keeps the last
    picture read, since the samples of one picture follow one another."""

    def __init__(self, qvn_kit, options, objects):
        self.qvn_kit, self.options, self.objects = qvn_kit, options, objects
        chosen = options["labels"]
        self.scale, self.square = chosen["per_object"], chosen["square"]
        self.last = (None, None)

    def picture(self, path, crop):
        # Only a reduced JPEG decode depends on the crop.
        key = (path, tuple(crop) if crop is not None and self.options.get("reduce", 1) > 1
               else None)
        if self.last[0] != key:
            self.last = (None, None)  # a failed read leaves nothing behind
            self.last = (key, read_picture(self.qvn_kit, path, self.options, crop))
        return self.last[1]

    def convert(self, path, rel, k, out):
        """Converts sample (rel, k) (k None: the whole picture) into `out`;
        returns (width, height) and the sample's label fields."""
        objects = self.objects.get(rel, [])
        if k is None:
            pic = self.picture(path, None)
            _, t = pic.convert(self.qvn_kit, self.options, out, transform=True)
            return pic.size, mapped(t, pic, objects)
        obj = objects[k]
        corners = extended(self.qvn_kit, obj["box"], self.scale, self.square)
        # The reduce factor of a JPEG follows the crop: the picture read as
        # a whole places the crop, then is read at the scale the crop allows.
        crop = upright_crop(self.qvn_kit, self.picture(path, None), self.options, corners)
        pic = self.picture(path, crop)
        _, t = pic.convert(self.qvn_kit, self.options, out, crop=crop, transform=True)
        fields = mapped(t, pic, [obj])
        fields["object"], fields["annotation"] = k, obj["annotation"]
        return pic.size, fields
