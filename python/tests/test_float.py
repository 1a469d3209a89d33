"""Float network inputs, letterboxing and the way back to the frame: the
module against NumPy's own normalisation of its bytes, against plain
conversions, against markers drawn in the frame, and against the tool and
qvn-dataset."""
import json
import subprocess

import numpy as np
import pytest

from conftest import picture, run_dataset, write_png

MEAN = (123.675, 116.28, 103.53)
STD = (58.395, 57.12, 57.375)
TURNS = ("rotate90r", "rotate90l")


def normalised(b, mean, std, axis):
    """(b - mean) / std in float32, one rounding per step, as the test's own
    definition of the float output."""
    shape = [1] * b.ndim
    shape[axis] = len(mean)
    m = np.asarray(mean, np.float32).reshape(shape)
    s = np.asarray(std, np.float32).reshape(shape)
    return (b.astype(np.float32) - m) / s


def letterbox_picture(cw, ch, tw, th, least):
    """Where the picture lies, by the fit rule: halves rounded up, centred
    with the odd pixel right or below."""
    if cw * th <= ch * tw:
        ph, pw = th, max(least, (2 * cw * th + ch) // (2 * ch))
    else:
        pw, ph = tw, max(least, (2 * ch * tw + cw) // (2 * cw))
    return (tw - pw) // 2, (th - ph) // 2, pw, ph


def frame_of(qk, fmt, h, w, seed):
    pic = picture(h, w, 3, seed)
    if fmt == "i420":  # a decoder's planes, each with its own stride
        yuv = qk.make_frame(pic, "nv12")
        y = np.ascontiguousarray(yuv[:h])
        uv = yuv[h:].reshape(h // 2, w // 2, 2)
        u = np.zeros((h // 2, w // 2 + 8), np.uint8)[:, :w // 2]
        u[...] = uv[..., 0]
        return (y, u, np.ascontiguousarray(uv[..., 1])), {"matrix": "bt709", "range": "full"}
    return qk.make_frame(pic, fmt), {}


CASES = [  # format, orient, crop, gray, size (H, W): one colour, one gray
    ("i420", "rotate90r|mirror", (4, 2, 40, 52), False, (26, 23)),  # odd margins
    ("nv21", "mirror", None, True, (12, 41)),
]


@pytest.mark.parametrize("fmt,orient,crop,gray,size", CASES)
def test_float_is_the_normalised_bytes_with_and_without_letterbox(qk, fmt, orient, crop, gray,
                                                                   size):
    frame, colour = frame_of(qk, fmt, 64, 96, seed=len(orient))
    mean, std = (MEAN[:1], STD[:1]) if gray else (MEAN, STD)
    common = dict(crop=crop, size=size, gray=gray, pad=40, **colour)
    plain = qk.preprocess(frame, fmt, orient, **common)
    f = qk.preprocess(frame, fmt, orient, dtype=np.float32, mean=mean, std=std, **common)
    assert f.dtype == np.float32 and f.shape == plain.shape
    planes = plain[None] if gray else plain
    assert np.array_equal(f[None] if gray else f, normalised(planes, mean, std, 0))
    if not gray:
        hwc = qk.preprocess(frame, fmt, orient, dtype=np.float32, mean=mean, std=std,
                            layout="hwc", **common)
        assert np.array_equal(hwc, f.transpose(1, 2, 0))

    # Letterboxed: the picture where the fit rule and the alignment put it,
    # the rest the pad byte; floats are those bytes normalised.
    th, tw = size
    cw, ch = crop[2:] if crop else (96, 64)  # neither case turns the whole frame
    least = 2 if fmt != "bgra" and fmt != "rgba" and not gray else 1
    for align in ("centre", "topleft"):
        u8, t = qk.preprocess(frame, fmt, orient, letterbox=7, letterbox_align=align,
                              transform=True, **common)
        x, y, pw, ph = letterbox_picture(cw, ch, tw, th, least)
        if align == "topleft":
            x = y = 0
        assert t.picture == (x, y, pw, ph) and t.size == (th, tw)
        planes = u8[None] if gray else u8
        mask = np.ones((th, tw), bool)
        mask[y:y + ph, x:x + pw] = False
        assert mask.any() and (planes[:, mask] == 7).all()
        fl = qk.preprocess(frame, fmt, orient, letterbox=7, letterbox_align=align,
                           dtype=np.float32, mean=mean, std=std,
                           layout="hwc", **common)
        want = normalised(planes, mean, std, 0).transpose(1, 2, 0)
        assert np.array_equal(fl, want[..., 0] if gray else want)


ORIENTS = ["0", "rotate90l", "rotate90r|mirror"]


def bright_box(plane):
    ys, xs = np.nonzero(plane > 127)
    return np.array([xs.min(), ys.min(), xs.max() + 1, ys.max() + 1], np.float64)


@pytest.mark.parametrize("orient", ORIENTS)
def test_transform_maps_a_marker_square_and_round_trips(qk, orient):
    h, w = 64, 96
    pic = np.zeros((h, w, 3), np.uint8)
    sx, sy, side = 18, 12, 16  # off-centre, so exchanged or flipped axes show
    pic[sy:sy + side, sx:sx + side] = 255
    frame = qk.make_frame(pic, "bgra")
    turned = any(t in orient for t in TURNS)
    uw, uh = (h, w) if turned else (w, h)
    # The crop keeps the square (at least 12 pixels from every edge) inside.
    for crop in (None, (4, 6, uw - 10, uh - 8)):
        for letterbox in (None, 0):
            out, t = qk.preprocess(frame, "bgra", orient, crop=crop, size=(40, 48),
                                   letterbox=letterbox, transform=True)
            found = bright_box(out[1])
            box = t.boxes_to_tensor([[sx / w, sy / h, side / w, side / h]])[0]
            mapped = np.array([box[0], box[1], box[0] + box[2], box[1] + box[3]])
            assert np.abs(found - mapped).max() <= 1.0, (orient, crop, letterbox, found, mapped)
            # The matrices: tensor -> frame -> tensor is the identity.
            a = np.vstack([t.to_tensor, [0, 0, 1]]) @ np.vstack([t.to_frame, [0, 0, 1]])
            assert np.allclose(a, np.eye(3), atol=1e-12)
            pts = np.random.default_rng(3).uniform(-5, 50, (50, 2)).astype(np.float32)
            back = t.points_to_tensor(t.points_to_frame(pts))
            assert np.abs(back - pts).max() <= 1e-4
            boxes = np.column_stack([pts, np.abs(pts[::-1]) + 1])
            assert np.abs(t.boxes_to_tensor(t.boxes_to_frame(boxes)) - boxes).max() <= 1e-4


def test_out_fills_a_batch_row_and_bad_input_writes_nothing(qk):
    frame, _ = frame_of(qk, "nv21", 48, 64, seed=5)
    batch = np.full((2, 3, 16, 24), -9.0, np.float32)
    r = qk.preprocess(frame, "nv21", "rotate90l", out=batch[1], dtype=np.float32, mean=MEAN,
                      std=STD, letterbox=114)
    assert r is not None and np.shares_memory(r, batch[1])
    assert np.array_equal(batch[1], qk.preprocess(frame, "nv21", "rotate90l", size=(16, 24),
                                                  dtype=np.float32, mean=MEAN, std=STD,
                                                  letterbox=114))
    assert (batch[0] == -9.0).all()
    bad = [dict(std=(1, 0, 1)), dict(std=(1, np.nan, 1)), dict(std=(np.inf, 1, 1)),
           dict(mean=(1, 2)), dict(std=(1, 2, 3, 4)), dict(mean=(np.nan, 0, 0)),
           dict(layout="nchw"), dict(letterbox=256), dict(letterbox_align="middle"),
           dict(size=(1, 9), letterbox=0), dict(dtype=np.float64)]
    for kw in bad:
        args = dict(dtype=np.float32, mean=MEAN, std=STD, out=batch[0])
        args.update(kw)
        with pytest.raises(ValueError):
            qk.preprocess(frame, "nv21", **args)
    with pytest.raises(ValueError, match="float32"):
        qk.preprocess(frame, "nv21", mean=MEAN, std=STD)
    assert (batch[0] == -9.0).all()
    # An out that shares memory with the frame is refused before a write.
    buf = np.zeros(frame.nbytes + 3 * 16 * 24 * 4, np.uint8)
    buf[:frame.nbytes] = frame.ravel()
    shared = buf[:frame.nbytes].reshape(frame.shape)
    out = buf[:3 * 16 * 24 * 4].view(np.float32).reshape(3, 16, 24)
    with pytest.raises(ValueError, match="memory"):
        qk.preprocess(shared, "nv21", out=out, dtype=np.float32)
    assert np.array_equal(buf[:frame.nbytes], frame.ravel())


def test_tool_writes_the_modules_floats_and_transform(qk, tool, tmp_path):
    png = tmp_path / "in.png"
    write_png(png, picture(60, 80, 3, seed=9))
    frame = qk.make_frame(qk.read_picture(png), "nv21")
    opts = ["--orient", "rotate90r|mirror", "--crop", "4,2,50,70", "--tensor", "3x32x40",
            "--letterbox", "114", "--float", "--mean", ",".join(map(str, MEAN)),
            "--std", ",".join(map(str, STD))]
    for nhwc in (False, True):
        out = tmp_path / "out.npy"
        args = [str(tool), "preprocess", str(png), str(out), *opts,
                "--transform", str(tmp_path / "t.json")] + (["--nhwc"] if nhwc else [])
        done = subprocess.run(args, capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        want, t = qk.preprocess(frame, "nv21", "rotate90r|mirror", crop=(4, 2, 50, 70),
                                size=(32, 40), letterbox=114, dtype=np.float32, mean=MEAN,
                                std=STD, layout="hwc" if nhwc else "chw", transform=True)
        got = np.load(out)
        assert got.dtype == np.float32 and np.array_equal(got, want)
        saved = json.loads((tmp_path / "t.json").read_text())
        assert np.array_equal(np.reshape(saved["to_tensor"], (2, 3)), t.to_tensor)
        assert np.array_equal(np.reshape(saved["to_frame"], (2, 3)), t.to_frame)
        assert tuple(saved["picture"]) == t.picture and saved["tensor"] == [40, 32]
    for extra, words in ((["--float", "--std", "1,0,1"], "--std"),
                         (["--float", "--std", "1,inf,1"], "--std"),
                         (["--float", "--mean", "1,2"], "--mean"),
                         (["--mean", "1,2,3"], "--float"),
                         (["--float", "--letterbox", "300"], "--letterbox"),
                         (["--letterbox-align", "topleft"], "--letterbox")):
        bad = tmp_path / "bad.npy"
        done = subprocess.run([str(tool), "preprocess", str(png), str(bad), *extra],
                              capture_output=True, text=True)
        lines = done.stderr.splitlines()
        assert done.returncode == 2 and len(lines) == 1 and words in lines[0], done.stderr
        assert not bad.exists()


def test_dataset_float_shards_are_preprocess(qk, tmp_path):
    src, out = tmp_path / "in", tmp_path / "out"
    src.mkdir()
    pics = [picture(50, 70, 3, seed=s) for s in range(3)]
    for i, p in enumerate(pics):
        write_png(src / f"p{i}.png", p)

    def prepare(*extra):
        return run_dataset(src, out, "--format", "nv12", "--orient", "rotate90l", "--tensor",
                           "3x20x28", "--workers", "0", "--shard", "2", *extra)

    opts = ["--dtype", "float32", "--mean", "1.5,2,3", "--std", "2,4,0.5", "--letterbox", "9"]
    done = prepare(*opts)
    assert done.returncode == 0, done.stderr
    rows = np.concatenate([np.load(out / "shard-00000.npy"), np.load(out / "shard-00001.npy")])
    assert rows.dtype == np.float32 and rows.shape == (3, 3, 20, 28)
    for row, p in zip(rows, pics):
        want = qk.preprocess(qk.make_frame(p, "nv12"), "nv12", "rotate90l", size=(20, 28),
                             dtype=np.float32, mean=(1.5, 2, 3), std=(2, 4, 0.5), letterbox=9)
        assert np.array_equal(row, want)
    options = json.loads((out / "manifest.json").read_text())["options"]
    assert (options["dtype"], options["mean"], options["std"], options["letterbox"]) == (
        "float32", [1.5, 2.0, 3.0], [2.0, 4.0, 0.5], 9)
    changed = prepare(*opts[:-1], "10", "--resume")
    assert changed.returncode == 2 and "--resume" in changed.stderr
    for extra in (["--dtype", "float32", "--std", "1,0,1"], ["--mean", "1,2,3"],
                  ["--dtype", "float32", "--std", "1,2"]):
        done = prepare(*extra)
        assert done.returncode == 2 and len(done.stderr.splitlines()) == 1, done.stderr
    # --max-shard-mb counts four bytes a value: 3 x 20 x 28 floats is 6720 bytes.
    small = run_dataset(src, tmp_path / "o2", "--tensor", "3x512x512", "--dtype", "float32",
                        "--max-shard-mb", "2", "--workers", "0")
    assert small.returncode == 2 and "3 MiB" in small.stderr, small.stderr
