"""--annotations: boxes and keypoints of the pictures, read on the client.

Two forms, told apart by the file's suffix (.json: COCO-style, .csv: plain
CSV) and, for any other suffix, by its first character that is not white
space ('{' is JSON, anything else CSV):

  COCO-style JSON: "images" (each with "id" and "file_name") and
  "annotations" (each with "image_id", "bbox" [x, y, w, h], optional
  "keypoints" [x, y, v] * K and "category_id").
  CSV: `path,x,y,w,h[,label]` a line, an optional header line starting with
  `path`; the label is the category.

Coordinates are pixels of the picture as stored: (0, 0) is its top-left
corner and pixel (i, j) covers [i, i + 1) x [j, j + 1), so the centre of
pixel (i, j) is (i + 0.5, j + 0.5).

A file that cannot be read, is not JSON or CSV, or is none of these forms
at all stops the run (Failure) before anything is written. A single bad
entry becomes one row of errors.csv and only that entry is left out.
"""
import csv
import hashlib
import io
import json
import math
import os
import posixpath
import stat
from pathlib import Path

from .failures import EXIT_INPUT, Failure, shown


class Annotations:
    """`objects`: picture path (as written in the file) -> list of objects,
    each {"box": [x, y, w, h], "category": int or None, "keypoints":
    [[x, y, v], ...], "annotation": where the file holds it, as errors.csv
    names it ("annotations[i]", "line n")} in the file's order; `errors`: [source, message] rows;
    `digest`: what makes two files the same for --resume."""

    def __init__(self, name):
        self.name = name
        self.objects = {}
        self.errors = []

    def picture(self, path):
        return self.objects.setdefault(path, [])


def invalid(name, why):
    return Failure(f"--annotations '{name}' is not valid: {why}", EXIT_INPUT)


# The largest annotations file read: well above the biggest public sets'
# (a few hundred MB), and a stop for a stream such as /dev/zero.
MAX_ANNOTATION_BYTES = 1 << 30


def read_bytes(path, name):
    """The whole file at `path`, refused past MAX_ANNOTATION_BYTES (a regular
    file by its length, before anything is read)."""
    with open(path, "rb") as f:
        st = os.fstat(f.fileno())
        if stat.S_ISREG(st.st_mode) and st.st_size > MAX_ANNOTATION_BYTES:
            raise invalid(name, f"longer than {MAX_ANNOTATION_BYTES} bytes")
        chunks, total = [], 0
        while True:
            chunk = f.read(1 << 20)
            if not chunk:
                return b"".join(chunks)
            total += len(chunk)
            if total > MAX_ANNOTATION_BYTES:
                raise invalid(name, f"longer than {MAX_ANNOTATION_BYTES} bytes")
            chunks.append(chunk)


def read_annotations(path):
    """The Annotations of the file at `path`; Failure when it is not usable
    at all."""
    name = shown(os.path.basename(path))
    try:
        data = read_bytes(path, name)
        try:
            text = data.decode("utf-8-sig")
        except UnicodeDecodeError as e:
            raise invalid(name, f"not UTF-8 text (byte {e.start})") from None
        suffix = os.path.splitext(path)[1].lower()
        as_json = suffix == ".json" or (suffix != ".csv" and text.lstrip()[:1] == "{")
        found = read_coco(name, text) if as_json else read_csv(name, text)
    except OSError as e:
        raise Failure(f"cannot read --annotations '{shown(path)}': {e.strerror}",
                      EXIT_INPUT) from None
    except MemoryError:
        raise Failure(f"--annotations '{shown(path)}' does not fit in memory",
                      EXIT_INPUT) from None
    found.digest = hashlib.sha256(data).hexdigest()
    return found


def number(v):
    """A finite JSON or CSV number, else None."""
    if isinstance(v, str):
        try:
            v = float(v)
        except ValueError:
            return None
    if isinstance(v, bool) or not isinstance(v, (int, float)) or not math.isfinite(v):
        return None
    return float(v)


def category(v, where):
    """An integral category, None when absent; ValueError otherwise."""
    if v is None or v == "":
        return None
    c = number(v)
    if c is None or c != int(c):
        raise ValueError(f"{where}: category {v!r} is not a number")
    return int(c)


def box(v, where):
    values = [number(x) for x in v] if isinstance(v, list) else []
    if len(values) != 4 or values[0] is None or values[1] is None:
        raise ValueError(f"{where}: bbox {json.dumps(v)} is not [x, y, w, h]")
    if values[2] is None or values[3] is None or values[2] < 0 or values[3] < 0:
        raise ValueError(f"{where}: bbox {json.dumps(v)} has a negative or NaN size")
    return values


def keypoints(v, where):
    if v is None:
        return []
    if not isinstance(v, list) or len(v) % 3:
        length = len(v) if isinstance(v, list) else "no"
        raise ValueError(f"{where}: keypoints has {length} values, not [x, y, v] triples")
    values = [number(x) for x in v]
    if any(x is None for x in values) or any(values[i] not in (0, 1, 2)
                                             for i in range(2, len(v), 3)):
        raise ValueError(f"{where}: keypoints hold a value that is not a number, or a "
                         "visibility other than 0, 1, 2")
    return [[values[i], values[i + 1], int(values[i + 2])] for i in range(0, len(v), 3)]


def read_coco(name, text):
    try:
        doc = json.loads(text)
    except json.JSONDecodeError as e:
        raise invalid(name, f"line {e.lineno} column {e.colno}: {e.msg}") from None
    except RecursionError:
        raise invalid(name, "its JSON is nested too deeply") from None
    if not isinstance(doc, dict):
        raise invalid(name, "the JSON document is not an object with \"images\" and "
                            "\"annotations\"")
    for key in ("images", "annotations"):
        if not isinstance(doc.get(key), list):
            raise invalid(name, f"key \"{key}\" is missing or not a list")
    found = Annotations(name)
    files = {}
    for i, image in enumerate(doc["images"]):
        where = f"{name} images[{i}]"
        if (not isinstance(image, dict) or not isinstance(image.get("file_name"), str)
                or not isinstance(image.get("id"), (int, str)) or not image["file_name"]):
            found.errors.append([where, f"{where}: an image needs \"id\" and \"file_name\""])
            continue
        try:  # JSON can escape a lone surrogate, which no file name holds
            image["file_name"].encode("utf-8")
        except UnicodeEncodeError:
            found.errors.append([where, f"{where}: \"file_name\" is not valid Unicode"])
            continue
        files[image["id"]] = image["file_name"]
        found.picture(image["file_name"])
    for i, ann in enumerate(doc["annotations"]):
        where = f"{name} annotations[{i}]"
        if (not isinstance(ann, dict) or not isinstance(ann.get("image_id"), (int, str))
                or files.get(ann["image_id"]) is None):
            found.errors.append([where, f"{where}: \"image_id\" names no image of \"images\""])
            continue
        source = files[ann["image_id"]]
        try:
            found.picture(source).append({
                "box": box(ann.get("bbox"), where),
                "category": category(ann.get("category_id"), where),
                "keypoints": keypoints(ann.get("keypoints"), where),
                "annotation": f"annotations[{i}]"})
        except ValueError as e:
            found.errors.append([source, str(e)])
    return found


def read_csv(name, text):
    found = Annotations(name)
    rows = 0
    try:
        lines = list(csv.reader(io.StringIO(text)))
    except csv.Error as e:
        raise invalid(name, str(e)) from None
    for n, row in enumerate(lines, 1):
        if not row or (n == 1 and row[0].strip().lower() == "path"):
            continue
        rows += 1
        where = f"{name} line {n}"
        if len(row) not in (5, 6) or not row[0]:
            found.errors.append([row[0] if row and row[0] else where,
                                 f"{where}: {len(row)} fields, not path,x,y,w,h[,label]"])
            continue
        try:
            obj = {"box": box(row[1:5], where),
                   "category": category(row[5] if len(row) == 6 else None, where),
                   "keypoints": [], "annotation": f"line {n}"}
        except ValueError as e:
            found.errors.append([row[0], str(e)])
            continue
        found.picture(row[0]).append(obj)
    if not found.objects:
        first = found.errors[0][1] if found.errors else "it holds no annotation"
        raise invalid(name, first if rows else "it holds no annotation")
    return found


def inside(input_dir, path):
    """`path` of an annotation as a picture path relative to input_dir
    ('/'-separated), or None when it names a place outside the folder."""
    if os.path.isabs(path):
        try:
            path = os.path.relpath(path, input_dir)
        except ValueError:
            return None
    rel = posixpath.normpath(path.replace(os.sep, "/"))
    if rel == "." or rel == ".." or rel.startswith("../") or rel.startswith("/"):
        return None
    return rel


def match(found, input_dir, pictures):
    """Annotations keyed by the pictures of `pictures` (relative paths) and
    the error rows of those naming no picture of INPUT_DIR."""
    known, by_picture, errors = set(pictures), {}, list(found.errors)
    for path, objects in found.objects.items():
        rel = inside(input_dir, path)
        if rel is None:
            errors.append([shown(path), f"{found.name}: names a picture outside INPUT_DIR"])
        elif rel not in known:
            errors.append([shown(path), f"{found.name}: no such PNG or JPEG picture in "
                                        "INPUT_DIR"])
        else:
            by_picture.setdefault(rel, []).extend(objects)
    return by_picture, errors


def samples(args, options, input_dir, paths, stamps):
    """Reads --annotations (before anything is written) and returns the
    samples to convert with their stamps, the objects of each picture, the
    error rows of the annotations and the pictures that have none. A sample
    is a picture, or with --per-object a [picture, object] pair."""
    found = read_annotations(args.annotations)
    options["labels"]["annotations"] = found.digest
    objects, errors = match(found, input_dir, paths)
    bare = sum(1 for p in paths if not objects.get(p))
    if options["labels"]["per_object"] is None:
        return paths, stamps, objects, errors, bare
    pairs, pair_stamps = [], []
    for p, s in zip(paths, stamps):
        for k in range(len(objects.get(p, []))):
            pairs.append([p, k])
            pair_stamps.append(s)
    return pairs, pair_stamps, objects, errors, bare
