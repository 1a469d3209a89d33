"""qvn-dataset --annotations: labels sit on the pixels. Every box is a
square of its own colour and every keypoint a white dot in the pictures;
after the conversion the squares and dots are found again in the tensor by
their colour alone and compared with labels.jsonl."""
import csv
import json
import sys

import numpy as np
import pytest

from conftest import ROOT, run_dataset, write_png

BG, WHITE = (0, 0, 0), (255, 255, 255)
COLOURS = {1: (220, 30, 30), 2: (30, 200, 40), 3: (40, 60, 230)}
# Per picture (W, H) and its objects: category, box [x, y, w, h], dots
# (pixel centres) and one unlabelled keypoint (v = 0).
PICTURES = {
    "a.png": ((56, 44), [(1, [6, 5, 12, 10], [(9, 8), (14, 11)]),
                         (2, [30, 16, 14, 14], [(34, 20), (40, 26)]),
                         (3, [46, 30, 8, 12], [(49, 35)])]),
    "sub/b.png": ((41, 51), [(2, [3, 30, 16, 12], [(8, 34)]),
                             (3, [24, 4, 10, 18], [(28, 9), (30, 18)])]),
}
ORIENTS = ["0", "1", "2", "4", "8", "16", "17", "18"]  # the eight turns and mirrors
MODES = {"whole": [], "crop": ["--crop", "11,9,29,26"],
         "letterbox": ["--letterbox", "0", "--format", "nv21"],
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
                       *args)  # (a later --format wins)
    assert done.returncode == 0, done.stderr
    lines = (out / "labels.jsonl").read_text().splitlines()
    index = list(csv.DictReader((out / "index.csv").open()))
    return [(np.load(out / r["shard"])[int(r["row"])], json.loads(line))
            for r, line in zip(index, lines, strict=True)]


def nearest(tensor):
    """Each tensor pixel's marker: 0 background, the category of its
    square, or -1 white. Markers are told from the background by brightness
    alone (a 4:2:0 frame blurs colour over two pixels, not brightness); each
    connected marker is the category nearest its median colour."""
    rgb = tensor.transpose(1, 2, 0).astype(float)
    luma = rgb @ (0.299, 0.587, 0.114)
    kind = np.zeros(luma.shape, int)
    todo = luma > 36  # halfway from the background to the darkest square
    while todo.any():
        r, c = np.argwhere(todo)[0]
        part = tuple(blob(todo, c + 0.5, r + 0.5).astype(int).T)
        todo[part] = False
        colour = np.median(rgb[part][luma[part] < 193], axis=0)  # without the dots
        kind[part] = min(COLOURS, key=lambda k: np.abs(colour - COLOURS[k]).sum())
    kind[luma >= 193] = -1  # halfway from the brightest square to white
    return kind


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


def same_set(got, want):
    for f in want.iterdir():
        if f.name != "manifest.json":
            assert (got / f.name).read_bytes() == f.read_bytes(), f.name


def test_cluster_resume_and_loader_give_the_same_labels(pictures, tmp_path):
    args = ["--annotations", pictures / "coco.json", "--per-object", "1.5", "--square",
            "--orient", "17", "--shard", "2"]
    alone = prepare(pictures, tmp_path / "alone", *args, "--workers", "0")
    prepare(pictures, tmp_path / "cluster", *args, "--workers", "2")
    same_set(tmp_path / "cluster", tmp_path / "alone")
    # A lost or damaged shard of labels is redone, the others kept.
    (tmp_path / "cluster" / "shard-00001.labels.jsonl").unlink()
    (tmp_path / "cluster" / "shard-00002.labels.jsonl").write_text("{}\n")
    done = run_dataset(pictures / "pictures", tmp_path / "cluster", "--format", "bgra",
                       "--tensor", "3x40x48", *args, "--workers", "0", "--resume")
    assert "1 shards kept" in done.stdout, done.stdout
    same_set(tmp_path / "cluster", tmp_path / "alone")

    sys.path.insert(0, str(ROOT / "python"))
    import qvn_dataset
    loaded = qvn_dataset.load(tmp_path / "alone")
    assert len(loaded) == len(alone) == 5
    coco = json.loads((pictures / "coco.json").read_text())
    names = {image["id"]: image["file_name"] for image in coco["images"]}
    for (tensor, labels), (want, line) in zip(loaded, alone):
        np.testing.assert_array_equal(tensor, want)
        assert labels["source"] == line["source"] and labels["object"] == line["object"]
        # `annotation` leads back to the entry of the file the sample was cut for.
        entry = coco["annotations"][int(labels["annotation"][len("annotations["):-1])]
        assert names[entry["image_id"]] == labels["source"]
        np.testing.assert_array_equal(labels["boxes"], np.float32(line["boxes"]))
        np.testing.assert_array_equal(labels["keypoints"], np.float32(line["keypoints"]))
        assert labels["category"].tolist() == line["category"]
    assert len({labels["annotation"] for _, labels in loaded}) == len(loaded)


BAD_COCO = [  # annotation, errors.csv source, words of its error
    ({"image_id": 0, "bbox": [1, 2, -3, 4]}, "a.png", "negative or NaN size"),
    ({"image_id": 0, "bbox": [1, 2, float("nan"), 4]}, "a.png", "negative or NaN size"),
    ({"image_id": 0, "bbox": [1, 2, 3, 4], "keypoints": [1, 2, 2, 3, 4]}, "a.png",
     "keypoints has 5 values"),
    ({"image_id": 0, "bbox": [1, 2, 3, 4], "category_id": "cat"}, "a.png",
     "category 'cat' is not a number"),
    ({"image_id": 7, "bbox": [1, 2, 3, 4]}, "coco.json annotations[5]", "image_id"),
    ({"image_id": 2, "bbox": [1, 2, 3, 4]}, "../a.png", "outside INPUT_DIR"),
    ({"image_id": 3, "bbox": [1, 2, 3, 4]}, "gone.png", "no such PNG or JPEG"),
    ({"image_id": 4, "bbox": [1, 2, 3, 4]}, "broken.png", "cannot decode PNG"),
    ({"image_id": [0], "bbox": [1, 2, 3, 4]}, "coco.json annotations[9]", "image_id"),
]
BAD_CSV = [("a.png,1,2,3", "a.png", "line 2: 4 fields"),
           ("a.png,x,2,3,4", "a.png", "line 3: bbox"),
           ("a.png,1,2,3,4,dog", "a.png", "category 'dog' is not a number")]


@pytest.fixture(scope="module")
def bad_runs(pictures, tmp_path_factory):
    root = tmp_path_factory.mktemp("bad")
    (root / "pictures").mkdir()
    (root / "pictures" / "a.png").write_bytes((pictures / "pictures" / "a.png").read_bytes())
    (root / "pictures" / "broken.png").write_bytes(b"\x89PNG\r\n\x1a\n" + b"\0" * 40)
    good = {"image_id": 0, "bbox": [6, 5, 12, 10], "category_id": 1}
    images = [{"id": i, "file_name": n}
              for i, n in enumerate(["a.png", "broken.png", "../a.png", "gone.png", "broken.png"])]
    (root / "coco.json").write_text(json.dumps(
        {"images": images, "annotations": [good] + [a for a, _, _ in BAD_COCO]}))
    (root / "boxes.csv").write_text("\n".join(
        ["path,x,y,w,h,label"] + [line for line, _, _ in BAD_CSV] + ["a.png,6,5,12,10,1"]))
    runs = {}
    for form in ("coco.json", "boxes.csv"):
        labels = prepare(root, root / form[:4], "--annotations", root / form, "--workers", "0")
        errors = list(csv.DictReader((root / form[:4] / "errors.csv").open()))
        runs[form] = labels, [(e["source"], e["error"]) for e in errors]
    return runs


@pytest.mark.parametrize("form, source, words",
                         [("coco.json", s, w) for _, s, w in BAD_COCO] +
                         [("boxes.csv", s, w) for _, s, w in BAD_CSV])
def test_a_bad_annotation_is_one_row_of_errors_and_nothing_else_is_lost(bad_runs, form,
                                                                         source, words):
    labels, errors = bad_runs[form]
    assert [e for e in errors if e[0] == source and words in e[1]], errors
    (_, line), = labels  # a.png, with its good box alone
    assert line["source"] == "a.png" and line["category"] == [1]
    # (broken.png fails as a picture in both)
    assert len(errors) == (len(BAD_COCO) if form == "coco.json" else len(BAD_CSV) + 1)


@pytest.mark.parametrize("name, content, code, words", [
    ("coco.json", '{"images": [}', 3, ["coco.json", "line 1 column 13"]),
    ("coco.json", '{"images": []}', 3, ["coco.json", 'key "annotations"']),
    ("notes", "{[", 3, ["notes", "line 1 column 2"]),  # told JSON by its first character
    ("boxes.csv", "path,x,y,w,h\nonly,three,fields\n", 3, ["boxes.csv", "line 2: 3 fields"]),
    ("boxes.csv", b"a.png,1,2,3,4,\xff\n", 3, ["boxes.csv", "not UTF-8"]),
    ("missing.csv", None, 3, ["cannot read --annotations", "missing.csv"]),
    ("deep.json", "[" * 100000, 3, ["deep.json", "nested too deeply"]),
    ("huge.json", 1 << 30, 3, ["huge.json", "longer than 1073741824 bytes"]),  # sparse
    ("boxes.csv", "a.png,1,2,3,4\n", 2, ["--per-object -1: the scale"]),
])
def test_an_unusable_annotations_file_stops_the_run_before_writing(pictures, tmp_path, name,
                                                                   content, code, words):
    path = tmp_path / name
    if isinstance(content, int):
        with open(path, "wb") as f:
            f.truncate(content + 1)
    elif content is not None:
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
    extra = ["--per-object", "-1"] if code == 2 else []
    done = run_dataset(pictures / "pictures", tmp_path / "out", "--annotations", path,
                       *extra, "--workers", "0")
    assert done.returncode == code and len(done.stderr.splitlines()) == 1, done.stderr
    assert all(w in done.stderr for w in words), done.stderr
    assert not (tmp_path / "out").exists()
