"""Finds the built module and the command-line tool.

QVN_BUILD_DIR names the CMake build folder (default: build/release of this
checkout); QVN_PYTHONPATH, when set, is where `import qvn_kit` looks first
(an installed tree, for example).
"""
import os
import struct
import subprocess
import sys
import zlib
from pathlib import Path

import numpy as np
import pytest

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("QVN_BUILD_DIR", ROOT / "build" / "release"))
sys.path.insert(0, os.environ.get("QVN_PYTHONPATH", str(BUILD / "python")))

TOOL = BUILD / "tools" / "qvn-kit"


def run(*args):
    """Runs the tool; a failure shows its stderr."""
    done = subprocess.run([str(a) for a in args], capture_output=True, text=True)
    assert done.returncode == 0, f"{args[0]} failed ({done.returncode}): {done.stderr}"
    return done.stdout


def dataset_env():
    """The environment qvn-dataset runs in: this module, then the package."""
    module_dir = os.environ.get("QVN_PYTHONPATH", str(BUILD / "python"))
    return dict(os.environ, PYTHONPATH=os.pathsep.join([module_dir, str(ROOT / "python")]))


def run_dataset(*args, cwd=None, umask=-1):
    """`qvn-dataset prepare ARGS` in a child interpreter; its result."""
    return subprocess.run([sys.executable, "-m", "qvn_dataset", "prepare", *map(str, args)],
                          capture_output=True, text=True, env=dataset_env(), cwd=cwd,
                          timeout=120, umask=umask)


def write_png(path, pixels):
    """An 8-bit PNG (gray, RGB or RGBA) without any imaging library."""
    pixels = np.ascontiguousarray(pixels, dtype=np.uint8)
    h, w = pixels.shape[:2]
    channels = 1 if pixels.ndim == 2 else pixels.shape[2]
    colour = {1: 0, 3: 2, 4: 6}[channels]
    rows = b"".join(b"\0" + pixels[r].tobytes() for r in range(h))

    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data +
                struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF))

    Path(path).write_bytes(b"\x89PNG\r\n\x1a\n" +
                           chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, colour, 0, 0, 0)) +
                           chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def picture(h, w, channels=3, seed=0):
    """A picture with smooth gradients and noise, so resizes and chroma show."""
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[0:h, 0:w]
    base = np.stack([(x * 255 // max(w - 1, 1)), (y * 255 // max(h - 1, 1)),
                     ((x + y) * 7) % 256, np.full_like(x, 200)], axis=-1)[..., :channels]
    noise = rng.integers(-20, 21, size=base.shape)
    return np.clip(base + noise, 0, 255).astype(np.uint8)


@pytest.fixture(scope="session")
def qk():
    import qvn_kit
    wanted = os.environ.get("QVN_PYTHONPATH")
    if wanted:  # testing an installed tree: it must be that module that loaded
        assert Path(qvn_kit.__file__).parent == Path(wanted), qvn_kit.__file__
    return qvn_kit


@pytest.fixture(scope="session")
def tool():
    if not TOOL.exists():
        pytest.skip(f"command-line tool not built at {TOOL}")
    return TOOL

