"""qvn_dataset: training sets with the device's bytes, over qvn_kit and Dask.

    qvn-dataset prepare INPUT_DIR OUT_DIR --format nv21 --orient rotate90r --tensor 3x256x256
    python3 -m qvn_dataset prepare ...
    samples = qvn_dataset.load(OUT_DIR)   # (tensor, labels) per sample
"""
from .prepare import convert_shard, main  # noqa: F401
from .load import load  # noqa: F401
