"""Frames as decoders hand them over: three-plane 4:2:0 (one array or a
tuple of strided planes), colour descriptions, video frames decoded by PyAV,
JPEGs decoded to their own planes, and the data set's two JPEG routes."""
import csv
import itertools
import json
import shutil
from pathlib import Path

import numpy as np
import pytest

from conftest import picture, run_dataset, write_png

VTEST = Path("/usr/share/doc/opencv-doc/examples/data/vtest.avi")
DATA = VTEST.parent
COLOURS = [None, "bt601", "bt709"], [None, "limited", "full"]


def random_planes(h, w, seed):
    rng = np.random.default_rng(seed)
    return (rng.integers(0, 256, (h, w), dtype=np.uint8),
            rng.integers(0, 256, (h // 2, w // 2), dtype=np.uint8),
            rng.integers(0, 256, (h // 2, w // 2), dtype=np.uint8))


def padded(plane, pad, fill=0xA5):
    """The plane inside rows `pad` bytes longer, as a decoder pads them."""
    wide = np.full((plane.shape[0], plane.shape[1] + pad), fill, np.uint8)
    wide[:, :plane.shape[1]] = plane
    return wide[:, :plane.shape[1]]


def two_plane(y, first, second):
    """Luma rows, then the chroma pairs interleaved: nv12 with (u, v), nv21
    with (v, u)."""
    return np.concatenate([y.ravel(), np.stack([first, second], -1).ravel()]).reshape(-1, y.shape[1])


def test_three_plane_forms_give_the_interleaved_frames_bytes(qk):
    y, u, v = random_planes(22, 30, seed=3)
    i420 = np.concatenate([y.ravel(), u.ravel(), v.ravel()]).reshape(-1, 30)
    yv12 = np.concatenate([y.ravel(), v.ravel(), u.ravel()]).reshape(-1, 30)
    strided = (padded(y, 34), padded(u, 13), padded(v, 3))
    assert strided[1].strides == (28, 1)
    nv12, nv21 = two_plane(y, u, v), two_plane(y, v, u)
    stepped = np.zeros((22, 60), np.uint8)
    stepped[:, ::2] = y  # rows that are not contiguous bytes: copied once
    wide = np.zeros((33, 40), np.uint8)
    wide[:, :30] = i420  # one array with padded rows: copied once
    jobs = [dict(), dict(orient="rotate90r|mirror", crop=(-3, 2, 25, 27), bgr=True, pad=9),
            dict(orient=2, crop=(4, 1, 20, 18), gray=True)]
    for (matrix, rng), job in itertools.product(itertools.product(*COLOURS), jobs):
        # An untagged three-plane frame of 22 lines is BT.601 limited.
        want_colour = dict(matrix=matrix or "bt601", range=rng or "limited")
        colour = dict(matrix=matrix, range=rng)
        kw = dict(size=(12, 14), **job)
        want = qk.preprocess(nv12, "nv12", **kw, **want_colour)
        np.testing.assert_array_equal(qk.preprocess(nv21, "nv21", **kw, **want_colour), want)
        for frame, fmt in [(i420, "i420"), (yv12, "yv12"), (strided, "i420"), ((y, v, u), "yv12"),
                           ((stepped[:, ::2], u, v), "i420"), (wide[:, :30], 1)]:  # 1: i420 by value
            assert qk.validate_frame(frame, fmt, **colour)
            got = qk.preprocess(frame, fmt, fast=False, **kw, **colour)
            np.testing.assert_array_equal(got, want, err_msg=f"{fmt} {matrix} {rng} {job}")
    # The strided planes were read where they lie, padding untouched.
    assert (strided[0].base[:, 30:] == 0xA5).all()
    # Above 576 lines an untagged frame is BT.709, still limited range.
    tall = random_planes(578, 4, seed=5)
    np.testing.assert_array_equal(
        qk.preprocess(tall, "i420", size=(8, 4)),
        qk.preprocess(two_plane(*tall), "nv12", size=(8, 4), matrix="bt709", range="limited"))
    # The decoder's rounded-up chroma of an odd frame: its last column and
    # row are the ones the converter never needs.
    y5, u5, v5 = random_planes(10, 14, seed=6)
    odd = (y5[:9, :13], u5, v5)
    np.testing.assert_array_equal(qk.preprocess(odd, "i420", size=(6, 6)),
                                  qk.preprocess((y5[:9, :13], u5[:4, :6], v5[:4, :6]), "i420",
                                                size=(6, 6)))


@pytest.mark.parametrize("call,words", [
    (lambda q, f, p: q.preprocess(p, "i420", matrix="bt2020"), ["matrix", "'bt2020'"]),
    (lambda q, f, p: q.preprocess(p, "i420", range="tv"), ["range", "'tv'"]),
    (lambda q, f, p: q.preprocess(p, "i420", matrix=601), ["matrix", "601"]),
    (lambda q, f, p: q.preprocess(np.zeros((4, 4, 4), np.uint8), "bgra", matrix="bt601"),
     ["4:2:0", "bgra"]),
    (lambda q, f, p: q.preprocess(p, "nv12"), ["tuple of planes", "'i420'"]),
    (lambda q, f, p: q.preprocess(p[:2], "i420"), ["three arrays", "2"]),
    (lambda q, f, p: q.preprocess((p[0], p[1][:, :3], p[2]), "i420"), ["(12, 16)", "(6, 3)"]),
    (lambda q, f, p: q.preprocess((p[0][:1], p[1][:1], p[2][:1]), "i420"), ["at least 2"]),
    (lambda q, f, p: q.preprocess((p[0][..., None], p[1], p[2]), "i420"), ["(12, 16, 1)"]),
    (lambda q, f, p: q.preprocess(f[:17], "yv12"), ["(H * 3 / 2, W)", "(17, 16)"]),
    (lambda q, f, p: q.preprocess(f, "i420", out=f[:3].reshape(3, 4, 4), size=(4, 4)),
     ["share", "frame"]),
    (lambda q, f, p: q.preprocess(p, "i420", out=p[0][:6].reshape(3, 4, 8), size=(4, 8)),
     ["share", "plane"]),
])
def test_bad_three_plane_frames_raise_value_error(qk, call, words):
    planes = random_planes(12, 16, seed=1)
    frame = np.concatenate([p.ravel() for p in planes]).reshape(-1, 16)
    with pytest.raises(ValueError) as e:
        call(qk, frame, planes)
    for w in words:
        assert w in str(e.value), (w, str(e.value))


def test_validate_frame_raises_for_bad_arguments(qk):
    # (Frames it refuses, with preprocess's reason: test_hostile.py.)
    y, u, v = random_planes(12, 16, seed=2)
    with pytest.raises(ValueError, match="range"):
        qk.validate_frame((y, u, v), "i420", range="studio")
    with pytest.raises(TypeError, match="plane u"):
        qk.validate_frame((y, u.astype(np.int16), v), "i420")


# ---------------------------------------------------------------------------
# Real footage decoded by PyAV
# ---------------------------------------------------------------------------

def decoded_frames(count):
    av = pytest.importorskip("av")
    if not VTEST.exists():
        pytest.skip(f"{VTEST} missing (Debian package opencv-doc)")
    with av.open(str(VTEST)) as f:
        return list(itertools.islice(f.decode(video=0), count))


def frame_planes(frame):
    """PyAV's planes read in place: rows of line_size bytes, cut to the
    plane's width (no copy)."""
    h, w = frame.height, frame.width
    return tuple(np.frombuffer(p, np.uint8).reshape(-1, p.line_size)[:ph, :pw]
                 for p, ph, pw in zip(frame.planes, (h, h // 2, h // 2), (w, w // 2, w // 2)))


def test_video_frames_match_ffmpegs_colours(qk):
    frame = decoded_frames(7)[6]
    assert frame.format.name == "yuv420p" and (frame.width, frame.height) == (768, 576)
    planes = frame_planes(frame)
    assert not planes[0].flags.owndata
    array = frame.to_ndarray(format="yuv420p")
    kw = dict(orient="rotate90l", crop=(30, 100, 500, 600), size=(96, 80))
    ours = qk.preprocess(planes, "i420", **kw)
    np.testing.assert_array_equal(qk.preprocess(array, "i420", **kw), ours)

    # Against libswscale on an upright same-size conversion (no resampling
    # but the chroma's): within 3 levels, 1.2 on average (measured on this
    # frame: at most 3, 1.07 / 1.05 / 0.61 on average). The other matrix or
    # range is far off (17 and 22 levels at most), so this tells them apart.
    size = (576, 768)
    full = __import__("av").VideoFrame.from_ndarray(array, format="yuvj420p")
    for ours_kw, ref in [(dict(), frame.reformat(format="rgb24", src_colorspace="ITU601",
                                                 interpolation="BILINEAR")),
                         (dict(matrix="bt709"), frame.reformat(format="rgb24",
                                                               src_colorspace="ITU709",
                                                               interpolation="BILINEAR")),
                         (dict(range="full"), full.reformat(format="rgb24",
                                                            src_colorspace="ITU601",
                                                            interpolation="BILINEAR"))]:
        got = qk.preprocess(planes, "i420", size=size, **ours_kw).astype(int)
        diff = np.abs(got - ref.to_ndarray().transpose(2, 0, 1))
        assert diff.max() <= 3 and diff.mean() <= 1.2, (ours_kw, diff.max(), diff.mean())


# ---------------------------------------------------------------------------
# JPEG planes
# ---------------------------------------------------------------------------

def test_jpeg_planes_against_libjpeg_and_ffmpeg(qk, tmp_path):
    cv2 = pytest.importorskip("cv2")
    av = pytest.importorskip("av")
    pic = picture(75, 101, seed=8)  # odd sides: the last column and row go
    path = str(tmp_path / "p.jpg")
    assert cv2.imwrite(path, pic[..., ::-1], [cv2.IMWRITE_JPEG_QUALITY, 90])
    assert qk.jpeg_header(path) == (101, 75, "4:2:0", "YCbCr")
    y, u, v = qk.read_jpeg_planes(path)
    assert (y.shape, u.shape, v.shape) == ((74, 100), (37, 50), (37, 50))
    # (Y against libjpeg's own decode, at every scale: test_video.cpp.)
    assert qk.read_jpeg_planes(path, reduce=2)[0].shape == (38, 50)
    # FFmpeg's own JPEG decoder gives the three planes (yuvj420p) within 1
    # (another IDCT).
    with av.open(path) as f:
        ref = frame_planes(next(f.decode(video=0)))
    for mine, theirs in zip((y, u, v), ref):
        assert np.abs(mine.astype(int) - theirs[:mine.shape[0], :mine.shape[1]]).max() <= 1
    # Not 4:2:0 YCbCr, or not a JPEG: None, and the header says why.
    gray_path = str(tmp_path / "g.jpg")
    cv2.imwrite(gray_path, pic[..., 0])
    assert qk.read_jpeg_planes(gray_path) is None
    assert qk.jpeg_header(gray_path)[2:] == ("gray", "gray")
    write_png(tmp_path / "p.png", pic)
    assert qk.read_jpeg_planes(tmp_path / "p.png") is None and qk.jpeg_header(tmp_path / "p.png") is None
    whole = Path(path).read_bytes()
    (tmp_path / "cut.jpg").write_bytes(whole[:len(whole) // 2])
    with pytest.raises(ValueError, match="cut.jpg"):
        qk.read_jpeg_planes(tmp_path / "cut.jpg")
    with pytest.raises(ValueError, match="reduce"):
        qk.read_jpeg_planes(path, reduce=3)


def test_dataset_jpeg_routes(qk, tmp_path):
    cv2 = pytest.importorskip("cv2")
    if not (DATA / "Blender_Suzanne1.jpg").exists():
        pytest.skip(f"{DATA} missing (Debian package opencv-doc)")
    src = tmp_path / "in"
    src.mkdir()
    yy, xx = np.mgrid[0:90, 0:121]
    pic = np.stack([xx * 2, yy * 2 + 40, 250 - xx - yy], -1).astype(np.uint8)  # smooth
    cv2.imwrite(str(src / "a420.jpg"), pic[..., ::-1], [cv2.IMWRITE_JPEG_QUALITY, 92])
    cv2.imwrite(str(src / "b_progressive.jpg"), pic[..., ::-1], [cv2.IMWRITE_JPEG_PROGRESSIVE, 1])
    cv2.imwrite(str(src / "c_gray.jpg"), pic[..., 1])
    shutil.copy(DATA / "Blender_Suzanne1.jpg", src / "d444.jpg")
    write_png(src / "e.png", pic)
    assert qk.jpeg_header(src / "d444.jpg")[2] == "4:4:4"
    assert qk.jpeg_header(src / "b_progressive.jpg")[2] == "4:2:0"
    opts = ["--tensor", "3x40x48", "--crop", "9,3,96,80", "--orient", "mirror", "--bgr",
            "--workers", "0"]
    rows = {}
    for route in ("planes", "rgb"):
        done = run_dataset(src, tmp_path / route, *opts, "--jpeg", route)
        assert done.returncode == 0, done.stderr
        index = list(csv.DictReader((tmp_path / route / "index.csv").open()))
        shard = np.load(tmp_path / route / "shard-00000.npy")
        rows[route] = {r["source"]: shard[int(r["row"])] for r in index}
        assert {r["source"]: r["size"] for r in index}["a420.jpg"] == "121x90"
        manifest = json.loads((tmp_path / route / "manifest.json").read_text())
        assert manifest["options"]["jpeg"] == route
    kw = dict(orient="mirror", crop=(9, 3, 96, 80), size=(40, 48), bgr=True)
    for name in ("a420.jpg", "b_progressive.jpg"):
        planes = qk.read_jpeg_planes(src / name)
        want = qk.preprocess(planes, "i420", matrix="bt601", range="full", **kw)
        np.testing.assert_array_equal(rows["planes"][name], want, err_msg=name)
        # The RGB route: the tool's frame of the decoded picture.
        frame = qk.make_frame(qk.read_picture(src / name), "nv21")  # odd width: repeated
        np.testing.assert_array_equal(rows["rgb"][name], qk.preprocess(frame, "nv21", **kw))
        # The routes differ: textbook BT.601 full range against nv21's own
        # weights of a frame remade from RGB.
        assert (rows["planes"][name] != rows["rgb"][name]).any(), name
    for name in ("c_gray.jpg", "d444.jpg", "e.png"):
        np.testing.assert_array_equal(rows["planes"][name], rows["rgb"][name], err_msg=name)

    # --reduce 2: the crop of 96x80 is at least twice the 48x40 tensor, so
    # the JPEG is decoded at half size and the crop becomes (5, 2, 48, 40)
    # (edges 4.5 -> 5, 52.5 -> 53, 1.5 -> 2, 41.5 -> 42). The 4:4:4 JPEG
    # keeps the RGB route.
    done = run_dataset(src, tmp_path / "half", *opts, "--reduce", "2")
    assert done.returncode == 0, done.stderr
    shard = np.load(tmp_path / "half" / "shard-00000.npy")
    half = qk.read_jpeg_planes(src / "a420.jpg", reduce=2)
    np.testing.assert_array_equal(
        shard[0], qk.preprocess(half, "i420", matrix="bt601", range="full",
                                **dict(kw, crop=(5, 2, 48, 40))))
    np.testing.assert_array_equal(shard[3], rows["rgb"]["d444.jpg"])
    # --reduce 4 would need a crop of 192x160: half size is the most it takes.
    done = run_dataset(src, tmp_path / "quarter", *opts, "--reduce", "4")
    assert np.load(tmp_path / "quarter" / "shard-00000.npy")[0].tobytes() == shard[0].tobytes()

    # A route change is an option change: --resume refuses it.
    done = run_dataset(src, tmp_path / "planes", *opts, "--jpeg", "rgb", "--resume")
    assert done.returncode == 2 and "--resume" in done.stderr, done.stderr
    done = run_dataset(src, tmp_path / "x", *opts, "--jpeg", "rgb", "--reduce", "2")
    assert done.returncode == 2 and "--reduce" in done.stderr, done.stderr
