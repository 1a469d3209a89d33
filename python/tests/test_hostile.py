"""Hostile arguments at the module's boundary: a clear exception or a correct
result, never a crash, a silently wrong byte or a poisoned state."""
import logging
import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

from conftest import picture, write_png

F32 = np.float32
NAN, INF = float("nan"), float("inf")

# Each call needs a contiguous copy (1 to 2 GiB) of a broadcast array whose
# shape passes every check, with 768 MiB of address space left. The decoder
# is made first: its own buffers are the kit's, not the module's.
MEMORY_CHILD = """
import resource
import numpy as np
import qvn_kit as qk
decoder = qk.SoftArgMax(16384, 4, 4096)
calls = {
    "mask": lambda: qk.mask(np.broadcast_to(np.float32(0.5), (1 << 29,))),
    "preprocess": lambda: qk.preprocess(np.broadcast_to(np.uint8(7), (16384, 24576, 4)),
                                        "bgra", size=(8, 8)),
    "rotate": lambda: qk.rotate(np.broadcast_to(np.uint8(7), (32768, 16384, 3)), 90),
    "decode": lambda: decoder.decode(np.broadcast_to(np.float32(0), (4096, 4, 16384))),
    "make_frame": lambda: qk.make_frame(np.broadcast_to(np.uint8(7), (16384, 24576, 4)), "rgba"),
}
with open("/proc/self/status") as status:
    used = next(int(l.split()[1]) for l in status if l.startswith("VmSize:")) << 10
resource.setrlimit(resource.RLIMIT_AS, (used + (768 << 20), used + (768 << 20)))
for name, call in calls.items():
    try:
        call()
        print(name, "returned")
    except MemoryError:
        print(name, "MemoryError")
# The interpreter is still sound.
print("after", qk.mask(np.ones(3, np.float32)).tolist())
"""


def test_copies_that_cannot_be_allocated_raise_memory_error(qk):
    env = dict(os.environ, PYTHONPATH=str(Path(qk.__file__).parent))
    done = subprocess.run([sys.executable, "-c", MEMORY_CHILD], env=env, capture_output=True,
                          text=True, timeout=120)
    assert done.returncode == 0, f"child ended with {done.returncode}: {done.stderr[-2000:]}"
    assert done.stdout.splitlines() == [
        "mask MemoryError", "preprocess MemoryError", "rotate MemoryError",
        "decode MemoryError", "make_frame MemoryError", "after [255, 255, 255]"]


def test_out_sharing_memory_with_its_input_is_refused(qk):
    # Values whose bytes follow from the definition with no rounding
    # question: below 0 -> 0, 1 and above -> 255.
    rng = np.random.default_rng(11)
    buf = rng.choice(np.array([-1, 0, 1, 2], F32), 64)
    before = buf.tobytes()
    values = buf[27:]  # bytes 108..255
    for out in (buf.view(np.uint8)[128:165], buf.view(np.uint8)[100:137]):  # tail, head
        with pytest.raises(ValueError, match="out must not share memory with values"):
            qk.mask(values, out=out)
    assert buf.tobytes() == before
    # A reversed view spans the bytes below its first element.
    with pytest.raises(ValueError, match="share memory"):
        qk.mask(buf[::-1][:16], out=buf.view(np.uint8)[184:200])
    assert buf.tobytes() == before
    # Touching is not overlapping: out starts at the byte after values ends.
    values, out = buf[:37], buf.view(np.uint8)[148:185]
    expected = np.where(values >= 1, 255, 0).astype(np.uint8)
    assert qk.mask(values, out=out) is out
    np.testing.assert_array_equal(out, expected)

    frame = qk.make_frame(picture(16, 12, seed=3), "nv21")  # 24 x 12 = 288 bytes
    room = np.zeros(288 + 192, np.uint8)
    room[:288] = frame.ravel()
    with pytest.raises(ValueError, match="out must not share memory with frame"):
        qk.preprocess(room[:288].reshape(24, 12), "nv21",
                      out=room[200:392].reshape(3, 8, 8))
    assert (room[:288] == frame.ravel()).all() and (room[288:] == 0).all()
    res = qk.preprocess(room[:288].reshape(24, 12), "nv21", out=room[288:].reshape(3, 8, 8))
    np.testing.assert_array_equal(res, qk.preprocess(frame, "nv21", size=(8, 8)))


def test_validate_frame_agrees_with_preprocess(qk, caplog):
    z = np.zeros
    cases = [(z((4, 4), np.uint8), "bgra"), (z((5, 3), np.uint8), "nv21"),
             (z((4, 4, 4), np.uint8), "nv21"), (z((6, 3), np.uint8), "nv12"),
             (z((0, 4), np.uint8), "nv21"), (z((4, 4, 3), np.uint8), 10),
             (z((6, 4, 1), np.uint8), "yuv420sp_a"), (z((4, 4, 4), np.uint8)[:, ::2], "rgba"),
             (z((6, 4), np.uint8), "nv21"), (z((6, 4), np.uint8), "yuv420sp_b"),
             (z((3, 5, 4), np.uint8), "bgra"), (z((4, 6, 4), np.uint8)[:, ::3], "rgba")]
    y, u, v = (z((12, 16), np.uint8), z((6, 8), np.uint8), z((6, 8), np.uint8))
    cases += [((y, u[:, :3], v), "i420"), ((y, u, v), "nv21"), ((y, u, v), "i420"),
              (z((4, 4, 4), np.uint8), "bgra", dict(matrix="bt709"))]
    for frame, fmt, *kw in cases:
        kw = kw[0] if kw else {}
        caplog.clear()
        with caplog.at_level(logging.ERROR, logger="qvn_kit"):
            valid = qk.validate_frame(frame, fmt, **kw)
        try:
            qk.preprocess(frame, fmt, size=(4, 4), **kw)
            refusal = None
        except ValueError as e:
            refusal = str(e)
        assert valid == (refusal is None), (fmt, refusal)
        if refusal:  # the same reason, logged instead of raised
            assert [r.getMessage() for r in caplog.records] == [refusal]


def test_non_finite_numbers_are_refused(qk):
    box = (0, 0, 10, 4)
    calls = [
        lambda: qk.SoftArgMax(8, 8, 1, beta=NAN), lambda: qk.SoftArgMax(8, 8, 1, beta=-INF),
        lambda: qk.KalmanTracker(64, 48, frequency=INF),
        lambda: qk.KalmanTracker(64, 48, frequency=1e7),
        lambda: qk.KalmanTracker(64, 48, process_noise=NAN),
        lambda: qk.KalmanTracker(64, 48, measurement_noise=INF),
        lambda: qk.OneEuroTracker(64, 48, min_cutoff=NAN),
        lambda: qk.OneEuroTracker(64, 48, beta=INF),
        lambda: qk.OneEuroTracker(64, 48, d_cutoff=NAN),
        lambda: qk.OneEuroTracker(64, 48, frequency=NAN),
        lambda: qk.adjust_box(box, INF, 0, 0, 0, 1, 1),
        lambda: qk.adjust_box(box, 0, 0, 0, 0, NAN, 1),
        lambda: qk.adjust_box((0, 0, INF, 4), 0, 0, 0, 0, 1, 1),
        lambda: qk.adjust_box(box, 0, 1e30, 0, 0, 1, 1),  # finite, beyond 32-bit whole units
        lambda: qk.extend_box(box, NAN), lambda: qk.extend_box((NAN, 0, 1, 1), 1.0),
        lambda: qk.warp(np.zeros((4, 4), np.uint8), [1, 0, NAN, 0, 1, 0], (4, 4)),
        lambda: qk.rectify_box(1, np.array([0, 0, INF, 1], F32)),
        lambda: qk.KalmanTracker(64, 48).init((0.1, NAN, 0.2, 0.2)),
    ]
    for call in calls:
        with pytest.raises(ValueError, match="finite|1e-5 and 1e6|2\\*\\*31"):
            call()
    # A refused box leaves the track exactly as it was: the same boxes after
    # it as from a twin that never saw it, and no NaN.
    good = [(0.3 + 0.002 * i, 0.4, 0.2, 0.25) for i in range(100)]
    fed, twin = qk.KalmanTracker(640, 480), qk.KalmanTracker(640, 480)
    fed.init(good[0])
    twin.init(good[0])
    for bad in [(NAN, 0.4, 0.2, 0.25), (0.3, INF, 0.2, 0.25), (0.3, 0.4, -INF, 0.25)]:
        with pytest.raises(ValueError, match="box must hold finite numbers"):
            fed.track(bad)
    got = np.array([fed.track(b) for b in good])
    np.testing.assert_array_equal(got, np.array([twin.track(b) for b in good]))
    assert np.isfinite(got).all()
    euro = qk.OneEuroTracker(640, 480)
    euro.init(good[0])
    with pytest.raises(ValueError, match="finite"):
        euro.track(np.array([0.3, NAN, 0.2, 0.25]))
    assert np.isfinite(np.array([euro.track(b) for b in good])).all()


def test_oversized_ints_and_foreign_paths(qk, tmp_path):
    frame = qk.make_frame(picture(8, 10, seed=4), "nv21")
    big = 2 ** 70
    for call, words in [
        (lambda: qk.preprocess(frame, "nv21", big), f"orient {big} is out of range"),
        (lambda: qk.preprocess(frame, big), f"format {big} is not a pixel format"),
        (lambda: qk.preprocess(frame, -big), f"format {-big} is not a pixel format"),
        (lambda: qk.validate_frame(frame, "nv21", big), "out of range"),
        (lambda: qk.rectify_box(big, (0, 0, 1, 1)), "out of range"),
        (lambda: qk.affine_matrix(big, 4, 4), f"orient {big} is not in 0..4294967295"),
        (lambda: qk.preprocess(frame, "nv21", crop=(0, 0, big, 4)), f"crop value {big}"),
        (lambda: qk.preprocess(frame, "nv21", "rotate90r\udcff"), "not text that UTF-8"),
        (lambda: qk.read_picture("a.png\0.txt"), "null byte"),
        (lambda: qk.read_picture(b"a.png\0.txt"), "null byte"),
    ]:
        with pytest.raises(ValueError, match=words.replace("*", r"\*")):
            call()
    # NumPy's integers are integers.
    np.testing.assert_array_equal(qk.preprocess(frame, np.int64(9), np.uint8(1), size=(4, 6)),
                                  qk.preprocess(frame, "nv21", "rotate90r", size=(4, 6)))
    # A file name that is not UTF-8 works as os.listdir gives it (a str with
    # surrogate escapes), as bytes and as a Path; a missing one is named
    # with a backslash escape.
    pic = picture(5, 7, seed=5)
    write_png(tmp_path / os.fsdecode(b"\xff\xfe.png"), pic)
    (listed,) = os.listdir(tmp_path)
    for path in (str(tmp_path / listed), os.fsencode(tmp_path / listed), tmp_path / listed):
        np.testing.assert_array_equal(qk.read_picture(path), pic)
    with pytest.raises(ValueError, match=r"\\xff\.png"):
        qk.read_picture(tmp_path / os.fsdecode(b"\xff.png"))
