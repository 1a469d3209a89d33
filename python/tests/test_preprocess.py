"""Frames and network inputs: the module against the command-line tool."""
import logging
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

from conftest import picture, run, write_png


def tool_tensor(tool, tmp_path, source, fmt, orient, tensor, extra=(), size=None):
    out = tmp_path / "out.npy"
    args = [tool, "preprocess", source, out, "--format", fmt, "--orient", orient,
            "--tensor", tensor, *extra]
    if size:
        args += ["--size", size]
    run(*args)
    return np.load(out)


def test_frame_maker_is_the_tools(qk, tool, tmp_path):
    # Odd-looking but even sizes; the tool's frame from the PNG and the
    # module's frame fed to the tool as raw bytes must convert alike, at the
    # frame's own size (no resampling), pixel for pixel.
    pic = picture(26, 34, seed=1)
    write_png(tmp_path / "p.png", pic)
    for fmt in ("nv21", "nv12"):
        frame = qk.make_frame(pic, fmt)
        assert frame.shape == (39, 34) and frame.dtype == np.uint8
        frame.tofile(tmp_path / "f.raw")
        from_png = tool_tensor(tool, tmp_path, tmp_path / "p.png", fmt, "0", "3x26x34")
        from_raw = tool_tensor(tool, tmp_path, tmp_path / "f.raw", fmt, "0", "3x26x34",
                               size="34x26")
        np.testing.assert_array_equal(from_raw, from_png)
        # The chroma order is what tells nv12 from nv21.
        nv12, nv21 = qk.make_frame(pic, "nv12"), qk.make_frame(pic, "nv21")
        np.testing.assert_array_equal(nv12[26:, 0::2], nv21[26:, 1::2])
    # B,G,R input with bgr=True is the same picture.
    np.testing.assert_array_equal(qk.make_frame(pic[..., ::-1].copy(), "nv21", bgr=True),
                                  qk.make_frame(pic, "nv21"))
    # An odd picture becomes the frame of the picture with its last column
    # and row repeated, as the tool makes it (the tool's note aside).
    odd = picture(25, 33, seed=2)
    write_png(tmp_path / "odd.png", odd)
    frame = qk.make_frame(odd, "nv21")
    assert frame.shape == (39, 34)
    np.testing.assert_array_equal(frame, qk.make_frame(np.pad(odd, ((0, 1), (0, 1), (0, 0)), mode="edge"), "nv21"))
    frame.tofile(tmp_path / "odd.raw")
    np.testing.assert_array_equal(
        tool_tensor(tool, tmp_path, tmp_path / "odd.raw", "nv21", "0", "3x26x34", size="34x26"),
        tool_tensor(tool, tmp_path, tmp_path / "odd.png", "nv21", "0", "3x26x34"))
    # Full-range BT.601: a gray picture has luma = gray and neutral chroma.
    gray = np.full((4, 6, 3), 77, np.uint8)
    f = qk.make_frame(gray, "nv12")
    assert (f[:4] == 77).all() and (f[4:] == 128).all()
    # Four-byte frames carry the picture's bytes; alpha of an RGB picture is 255.
    rgba = qk.make_frame(pic, "rgba")
    np.testing.assert_array_equal(rgba[..., :3], pic)
    assert (rgba[..., 3] == 255).all()
    np.testing.assert_array_equal(qk.make_frame(pic, "bgra")[..., :3], pic[..., ::-1])


CASES = [
    # format, orient, crop, tensor, bgr, gray, pad
    ("nv21", "rotate90r|mirror", (10, 6, 40, 30), "3x24x20", True, False, 0),
    ("nv21", "rotate90l", (-8, -4, 30, 20), "1x11x15", False, True, 99),
    ("rgba", "rotate90l|flipv", (30, 20, 40, 40), "3x15x31", False, False, 77),
]


@pytest.mark.parametrize("fmt,orient,crop,tensor,bgr,gray,pad", CASES)
def test_preprocess_is_the_tools(qk, tool, tmp_path, fmt, orient, crop, tensor, bgr, gray,
                                 pad):
    pic = picture(48, 64, seed=2)
    write_png(tmp_path / "p.png", pic)
    extra = ["--pad", str(pad)] + (["--bgr"] if bgr else []) + (["--gray"] if gray else [])
    if crop:
        extra += ["--crop", ",".join(map(str, crop))]
    expected = tool_tensor(tool, tmp_path, tmp_path / "p.png", fmt, orient, tensor, extra)
    _, th, tw = map(int, tensor.split("x"))
    for fast in (False, True):  # the step-by-step and the one-pass converter
        got = qk.preprocess(qk.make_frame(pic, fmt), fmt, orient, crop=crop, size=(th, tw),
                            bgr=bgr, gray=gray, pad=pad, fast=fast)
        assert got.dtype == np.uint8
        assert got.shape == ((th, tw) if gray else (3, th, tw))
        np.testing.assert_array_equal(got, expected.reshape(got.shape))


def test_raw_frames_are_the_tools(qk, tool, tmp_path):
    # Formats the tool takes only as raw frames, from random bytes.
    rng = np.random.default_rng(3)
    frame = rng.integers(0, 256, size=(30, 16), dtype=np.uint8)  # 16 x 20 two-plane
    frame.tofile(tmp_path / "f.raw")
    for fmt in ("yuv420sp_a", "yuv420sp_b"):
        expected = tool_tensor(tool, tmp_path, tmp_path / "f.raw", fmt, "rotate90r", "3x9x14",
                               size="16x20")
        np.testing.assert_array_equal(qk.preprocess(frame, fmt, 1, size=(9, 14)), expected)


def test_threads_give_the_same_bytes(qk):
    frames = [qk.make_frame(picture(60, 80, seed=s), "nv21") for s in range(12)]

    def convert(f):
        return qk.preprocess(f, "nv21", "rotate90r|mirror", crop=(4, 2, 70, 50), size=(32, 48))

    one = [convert(f) for f in frames]
    with ThreadPoolExecutor(4) as pool:
        four = list(pool.map(convert, frames * 3))
    for i, t in enumerate(four):
        np.testing.assert_array_equal(t, one[i % len(frames)])


def test_out_writes_in_place_and_nothing_on_refusal(qk):
    frame = qk.make_frame(picture(20, 24, seed=4), "nv21")
    batch = np.full((2, 3, 8, 8), 7, np.uint8)
    res = qk.preprocess(frame, "nv21", out=batch[1])
    assert np.shares_memory(res, batch)
    np.testing.assert_array_equal(batch[1], qk.preprocess(frame, "nv21", size=(8, 8)))
    assert (batch[0] == 7).all()
    # Refused outputs stay as they were.
    strided = np.full((3, 8, 16), 7, np.uint8)[:, :, ::2]
    with pytest.raises(ValueError, match="out must be C-contiguous"):
        qk.preprocess(frame, "nv21", size=(8, 8), out=strided)
    wrong = np.full((3, 8, 9), 7, np.uint8)
    with pytest.raises(ValueError, match=r"out must have shape \(3, 8, 8\), not \(3, 8, 9\)"):
        qk.preprocess(frame, "nv21", size=(8, 8), out=wrong)
    with pytest.raises(TypeError, match="out must have dtype uint8, not float32"):
        qk.preprocess(frame, "nv21", size=(8, 8), out=np.zeros((3, 8, 8), np.float32))
    masks = np.full((2, 16), 7, np.uint8)
    with pytest.raises(ValueError, match=r"out must have shape \(3, 16\)"):
        qk.mask(np.zeros((3, 16), np.float32), out=masks)
    assert (strided == 7).all() and (wrong == 7).all() and (masks == 7).all()


@pytest.mark.parametrize("call,exc,words", [
    (lambda q, f: q.preprocess(f.astype(np.float32), "nv21"), TypeError,
     ["frame", "uint8", "float32"]),
    (lambda q, f: q.preprocess(f.tolist(), "nv21"), TypeError, ["frame", "numpy.ndarray", "list"]),
    (lambda q, f: q.preprocess(f[None], "nv21"), ValueError, ["frame", "(H * 3 / 2, W)", "(1, 30, 24)"]),
    (lambda q, f: q.preprocess(f[:29], "nv21"), ValueError, ["frame", "(29, 24)"]),
    (lambda q, f: q.preprocess(f, "nv21", size=(1, 8)), ValueError, ["size", "(2, 2)"]),
    (lambda q, f: q.preprocess(f, "nv21", crop=(0, 0, 0, 4)), ValueError, ["crop width", "0"]),
    (lambda q, f: q.preprocess(f, "nv21", pad=256), ValueError, ["pad", "256"]),
    (lambda q, f: q.preprocess(f, "nv21", orient="sideways"), ValueError, ["orient", "sideways"]),
    (lambda q, f: q.preprocess(f, "yuv444"), ValueError, ["format", "yuv444"]),
    (lambda q, f: q.rotate(np.zeros((4, 4), np.uint8), 45), ValueError, ["angle", "45"]),
    (lambda q, f: q.warp(np.zeros((4, 4, 5), np.uint8), np.eye(2, 3), (4, 4)), ValueError,
     ["image", "C <= 4", "(4, 4, 5)"]),
    (lambda q, f: q.mask(np.zeros(4, np.float64)), TypeError, ["values", "float32", "float64"]),
    (lambda q, f: q.SoftArgMax(8, 6, 2).decode(np.zeros((2, 8, 6), np.float32)), ValueError,
     ["heatmaps", "(2, 6, 8)", "(2, 8, 6)"]),
    (lambda q, f: q.SoftArgMax(6, 6, 1).decode_with_variance_vector(np.zeros((1, 6, 6), np.float32)),
     ValueError, ["multiple of 4"]),
    (lambda q, f: q.rotate_boxes(np.zeros((3, 2), np.float32), 90), ValueError, ["boxes", "(N, 4)", "(3, 2)"]),
    (lambda q, f: q.KalmanTracker(64, 48).track((0, 0, 1, 1)), ValueError, ["init"]),
])
def test_bad_input_raises(qk, call, exc, words):
    frame = qk.make_frame(picture(20, 24, seed=5), "nv21")
    with pytest.raises(exc) as info:
        call(qk, frame)
    for word in words:
        assert word in str(info.value)


def test_non_contiguous_input_is_read_correctly(qk):
    pic = picture(20, 24, channels=4, seed=6)
    frame = qk.make_frame(pic, "bgra")
    wide = np.zeros((20, 48, 4), np.uint8)
    wide[:, ::2] = frame
    strided = wide[:, ::2]
    assert not strided.flags.c_contiguous
    np.testing.assert_array_equal(qk.preprocess(strided, "bgra", "rotate90r", size=(9, 7)),
                                  qk.preprocess(frame, "bgra", "rotate90r", size=(9, 7)))
    np.testing.assert_array_equal(qk.rotate(pic[:, ::-1], 90), qk.rotate(pic[:, ::-1].copy(), 90))


def test_library_log_lines_reach_logging(qk, caplog):
    text = "Found a invalid QVN_Image*. Error: QVN_Image.pix_fmt is unsupported for input."
    gray = np.zeros((4, 6), np.uint8)
    with caplog.at_level(logging.ERROR, logger="qvn_kit"):
        assert qk.validate_frame(gray, 7, for_input=False)
        assert not qk.validate_frame(gray, 7)
        # From a worker thread too: the line is emitted once the call is back.
        with ThreadPoolExecutor(2) as pool:
            assert not pool.submit(qk.validate_frame, gray, 7).result()
    lines = [(r.name, r.levelno, r.getMessage()) for r in caplog.records]
    assert lines == [("qvn_kit", logging.ERROR, text)] * 2
