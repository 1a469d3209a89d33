"""qvn_dataset.load(OUT_DIR): a prepared set as (tensor, labels) samples.

The shards are mapped with numpy.load(mmap_mode="r"), so a sample is read
from disk when it is indexed and a set larger than memory loads at once.
With torch installed the set is a torch.utils.data.Dataset (torch is never
needed otherwise); its samples have boxes of different counts, so batch
them with a collate_fn of your own.
"""
import csv
import json
from pathlib import Path

import numpy as np


class PreparedSet:
    """Sample i is (tensor, labels): the i-th row of index.csv, its tensor a
    read-only view of its shard, and labels a dict with "source" and, when
    the set was prepared with --annotations, "boxes" float32 (N, 4) [x, y, w,
    h], "category" int64 (N,) (-1 where none was given), "clipped" bool
    (N,), "keypoints" float32 (N, K, 3) [x, y, v] (K the most any of its
    objects has, the others padded with v = 0) and, for per-object crops,
    "object" and "annotation"; all in tensor pixels."""

    def __init__(self, out_dir):
        self.root = Path(out_dir)
        try:
            manifest = json.loads((self.root / "manifest.json").read_text(encoding="utf-8"))
            with open(self.root / "index.csv", newline="", encoding="utf-8") as f:
                self.rows = list(csv.DictReader(f))
        except (OSError, ValueError) as e:
            raise ValueError(f"'{out_dir}' is not a prepared set: {e}") from None
        if not manifest.get("complete"):
            raise ValueError(f"'{out_dir}' holds an unfinished run: finish it with --resume")
        self.labels = None
        if (self.root / "labels.jsonl").is_file():
            with open(self.root / "labels.jsonl", encoding="utf-8") as f:
                self.labels = [json.loads(line) for line in f]
            if len(self.labels) != len(self.rows):
                raise ValueError(f"'{out_dir}': labels.jsonl has {len(self.labels)} lines for "
                                 f"{len(self.rows)} samples")
        self.shards = {}

    def __len__(self):
        return len(self.rows)

    def shard(self, name):
        if name not in self.shards:
            self.shards[name] = np.load(self.root / name, mmap_mode="r")
        return self.shards[name]

    def __getitem__(self, i):
        if not -len(self.rows) <= i < len(self.rows):
            raise IndexError(f"sample {i} of {len(self.rows)}")
        row = self.rows[i]
        tensor = self.shard(row["shard"])[int(row["row"])]
        labels = {"source": row["source"]}
        if self.labels is not None:
            labels.update(arrays(self.labels[i]))
        return tensor, labels


def arrays(line):
    """One labels.jsonl line as NumPy arrays."""
    n = len(line["boxes"])
    k = max((len(p) for p in line["keypoints"]), default=0)
    points = np.zeros((n, k, 3), np.float32)
    for j, p in enumerate(line["keypoints"]):
        if p:
            points[j, :len(p)] = p
    out = {"boxes": np.array(line["boxes"], np.float32).reshape(n, 4),
           "category": np.array([-1 if c is None else c for c in line["category"]],
                                np.int64).reshape(n),
           "clipped": np.array(line["clipped"], bool).reshape(n),
           "keypoints": points}
    for key in ("object", "annotation"):
        if key in line:
            out[key] = line[key]
    return out


_CLASS = []


def load(out_dir):
    """The prepared set in `out_dir` (see PreparedSet); a torch Dataset too
    when torch can be imported (looked for here, not when the package is
    imported: the command-line tool never pays for it)."""
    if not _CLASS:
        try:
            from torch.utils.data import Dataset
            _CLASS.append(type("PreparedSet", (PreparedSet, Dataset), {}))
        except ImportError:
            _CLASS.append(PreparedSet)
    return _CLASS[0](out_dir)
