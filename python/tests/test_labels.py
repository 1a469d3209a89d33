"""qvn-dataset --annotations: labels sit on the pixels. Every box is a
square of its own colour and every keypoint a white dot in the pictures;
after the conversion the squares and dots are found again in the tensor by
their colour alone and compared with labels.jsonl."""
import csv
import json

import numpy as np
import pytest

from conftest import run_dataset, write_png

BG, WHITE = (40, 40, 40), (255, 255, 255)
COLOURS = {1: (220, 30, 30), 2: (30, 200, 40), 3: (40, 60, 230)}
# Per picture (W, H) and its objects: category, box [x, y, w, h], dots
# (pixel centres) and one unlabelled keypoint (v = 0).
PICTURES = {
    "a.png": ((56, 44), [(1, [6, 5, 12, 10], [(9, 8), (14, 11)]),
                         (2, [30, 16, 14, 14], [(34, 20), (40, 26)]),
                         (3, [46, 30, 8, 12], [(49, 35)])]),
    "sub/b.png": ((40, 50), [(2, [3, 30, 16, 12], [(8, 34)]),
                             (3, [24, 4, 10, 18], [(28, 9), (30, 18)])]),
}
ORIENTS = ["0", "1", "2", "4", "8", "16", "17", "18"]  # the eight turns and mirrors
MODES = {"whole": [], "crop": ["--crop", "11,9,29,26"], "letterbox": ["--letterbox", "0"],
         "square": ["--per-object", "1.6", "--square"], "object": ["--per-object", "1.4"]}


@pytest.fixture(scope="module")
def pictures(tmp_path_factory):
    root = tmp_path_factory.mktemp("marked")
    (root / "pictures" / "sub").mkdir(parents=True)
    coco = {"images": [], "annotations": []}
    rows = ["path,x,y,w,h,label"]
    for n, (name, ((w, h), objects)) in enumerate(PICTURES.items()):
        pic = np.empty((h, w, 3), np.uint8)
        pic[:] = BG
        coco["images"].append({"id": n, "file_name": name})
        for cat, (x, y, bw, bh), dots in objects:
            pic[y:y + bh, x:x + bw] = COLOURS[cat]
            points = []
            for px, py in dots:
                pic[py - 1:py + 2, px - 1:px + 2] = WHITE
                points += [px + 0.5, py + 0.5, 2]
            coco["annotations"].append({"image_id": n, "bbox": [x, y, bw, bh],
                                        "category_id": cat, "keypoints": points + [0, 0, 0]})
            rows.append(f"{name},{x},{y},{bw},{bh},{cat}")
        write_png(root / "pictures" / name, pic)
    (root / "coco.json").write_text(json.dumps(coco))
    (root / "boxes.csv").write_text("\n".join(rows) + "\n")
    return root


def prepare(src, out, *args):
    done = run_dataset(src / "pictures", out, "--format", "bgra", "--tensor", "3x40x48",
                       *args)
    assert done.returncode == 0, done.stderr
    lines = (out / "labels.jsonl").read_text().splitlines()
    index = list(csv.DictReader((out / "index.csv").open()))
    return [(np.load(out / r["shard"])[int(r["row"])], json.loads(line))
            for r, line in zip(index, lines, strict=True)]


def nearest(tensor):
    """Each tensor pixel's nearest colour of the pictures: 0 background,
    a category, or -1 white."""
    palette = {0: BG, -1: WHITE, **COLOURS}
    keys = list(palette)
    rgb = tensor.transpose(1, 2, 0).astype(float)
    dist = [np.abs(rgb - palette[k]).sum(axis=2) for k in keys]
    return np.array(keys)[np.argmin(dist, axis=0)]


@pytest.mark.parametrize("orient", ORIENTS)
@pytest.mark.parametrize("mode", MODES)
def test_boxes_enclose_their_squares_and_keypoints_sit_on_their_dots(pictures, tmp_path,
                                                                     orient, mode):
    form = "boxes.csv" if ORIENTS.index(orient) % 2 else "coco.json"
    samples = prepare(pictures, tmp_path, "--orient", orient, "--annotations",
                      pictures / form, *MODES[mode], "--workers", "0")
    per_object = mode in ("square", "object")
    wanted = sum(len(o) for _, o in PICTURES.values()) if per_object else len(PICTURES)
    assert len(samples) == wanted
    for tensor, labels in samples:
        kind = nearest(tensor)
        h, w = kind.shape
        for cat, box, clipped in zip(labels["category"], labels["boxes"], labels["clipped"]):
            ys, xs = np.nonzero(kind == cat)
            x0, y0, x1, y1 = xs.min(), ys.min(), xs.max() + 1, ys.max() + 1
            assert np.allclose([box[0], box[1], box[0] + box[2], box[1] + box[3]],
                               [x0, y0, x1, y1], atol=1), (labels, [x0, y0, x1, y1])
            at_edge = x0 == 0 or y0 == 0 or x1 == w or y1 == h
            assert clipped == (at_edge and mode == "crop"), labels
        if per_object:  # cut about the object's centre, the long side SCALE times
            (x, y, bw, bh), = labels["boxes"]
            assert abs(x + bw / 2 - w / 2) <= 0.06 * w and abs(y + bh / 2 - h / 2) <= 0.06 * h
            if mode == "square":
                assert max(bw / w, bh / h) == pytest.approx(1 / 1.6, rel=0.06), labels
        else:  # every square in sight has its box
            assert set(np.unique(kind)) - {0, -1} == set(labels["category"]), labels
        visible = [p for points in labels["keypoints"] for p in points if p[2]]
        assert len(visible) >= (1 if form == "coco.json" and mode != "crop" else 0)
        for x, y, _ in visible:
            dot = blob(kind == -1, x, y)
            assert np.hypot(*(dot.mean(axis=0) + 0.5 - (y, x))) <= 1, (x, y, labels)
        for points in labels["keypoints"]:
            for x, y, v in points[-1:]:  # the unlabelled one stays invisible
                assert v == 0


def blob(mask, x, y):
    """The (row, column) pixels of the 4-connected part of `mask` nearest to
    the point (x, y)."""
    ys, xs = np.nonzero(mask)
    i = np.argmin(np.hypot(xs + 0.5 - x, ys + 0.5 - y))
    seen, todo = set(), [(ys[i], xs[i])]
    while todo:
        r, c = todo.pop()
        if (r, c) in seen or not (0 <= r < mask.shape[0] and 0 <= c < mask.shape[1]) \
                or not mask[r, c]:
            continue
        seen.add((r, c))
        todo += [(r + 1, c), (r - 1, c), (r, c + 1), (r, c - 1)]
    return np.array(sorted(seen), float)
