"""Turns, warps, masks, decoders, trackers and geometry: the module against
the C++ library (the tool or the reference helper) and exact values."""
import json

import numpy as np
import pytest

from conftest import picture, run

F32 = np.float32


def ref_bytes(pyref, tmp_path, args, out_dtype):
    out = tmp_path / "ref.out"
    run(pyref, *args, out)
    return np.fromfile(out, dtype=out_dtype)


def test_turns_match_library(qk, pyref, tmp_path):
    # The text-book case: rows "abc", "def".
    abc = np.frombuffer(b"abcdef", np.uint8).reshape(2, 3)
    rows = lambda a: [bytes(r).decode() for r in a]  # noqa: E731
    assert rows(qk.rotate(abc, 90)) == ["da", "eb", "fc"]
    assert rows(qk.rotate(abc, 270)) == ["cf", "be", "ad"]
    assert rows(qk.rotate(abc, 180)) == ["fed", "cba"]
    assert rows(qk.mirror(abc)) == ["cba", "fed"]
    assert rows(qk.flip_v(abc)) == ["def", "abc"]
    for shape in [(5, 7), (5, 7, 3), (4, 9, 4)]:
        img = np.random.default_rng(len(shape)).integers(0, 256, shape, np.uint8)
        h, w = shape[:2]
        c = shape[2] if len(shape) == 3 else 1
        img.tofile(tmp_path / "in.u8")
        geometry = [tmp_path / "in.u8", w, h, c]
        for angle in (0, 90, 180, 270):
            got = qk.rotate(img, angle)
            assert got.shape == (shape if angle in (0, 180) else (w, h) + shape[2:])
            np.testing.assert_array_equal(
                got.ravel(), ref_bytes(pyref, tmp_path, ["rotate", *geometry, angle], np.uint8))
        for name, fn in (("mirror", qk.mirror), ("flipv", qk.flip_v)):
            np.testing.assert_array_equal(
                fn(img).ravel(), ref_bytes(pyref, tmp_path, [name, *geometry], np.uint8))


@pytest.mark.parametrize("channels", [1, 2, 3, 4])
def test_warps_match_library(qk, pyref, tmp_path, channels):
    img = picture(23, 29, channels=max(channels, 3), seed=channels)[..., :channels]
    if channels == 1:
        img = img[..., 0]
    img = np.ascontiguousarray(img)
    img.tofile(tmp_path / "in.u8")
    # A turn, a scale and a shift that moves part of the output outside.
    a = np.deg2rad(17.0)
    m = np.array([[np.cos(a) * 1.3, -np.sin(a) * 1.3, 6.25],
                  [np.sin(a) * 1.3, np.cos(a) * 1.3, -3.5]], F32)
    for vector in (False, True):
        got = qk.warp(img, m, (19, 26), border=33, vector=vector)
        expected = ref_bytes(pyref, tmp_path, ["warp", tmp_path / "in.u8", 29, 23, channels,
                                               26, 19, 33, int(vector), *map(repr, m.ravel().tolist())],
                             np.uint8)
        np.testing.assert_array_equal(got.ravel(), expected)
        assert (got == 33).any() and (got != 33).any()
    # The identity copies all but the last row and column, which are border.
    same = qk.warp(img, [1, 0, 0, 0, 1, 0], img.shape[:2], border=9)
    np.testing.assert_array_equal(same[:-1, :-1], img[:-1, :-1])
    assert (same[-1] == 9).all() and (same[:, -1] == 9).all()


def test_masks_and_softmax_match_library(qk, pyref, tmp_path):
    # Exact values: the vector rule rounds to even, the last n % 16 values
    # are truncated by the scalar tail.
    assert (qk.mask(np.full(16, 0.5, F32)) == 128).all()
    assert qk.mask(np.array([0.5], F32)).tolist() == [127]
    assert qk.mask(np.array([-1.0, 2.0] * 8, F32)).tolist() == [0, 255] * 8
    sig = np.array([0, 1, 5, 50, -50] + [0] * 11, F32)
    assert qk.mask(sig, sigmoid=True).tolist()[:5] == [129, 185, 253, 255, 0]
    assert qk.mask(sig[:5], sigmoid=True).tolist() == [127, 186, 253, 255, 0]
    # Any shape, any n: the blocks inside the array and the tail agree with
    # the kernel run over the whole (padded) array.
    rng = np.random.default_rng(7)
    values = rng.normal(0.5, 0.6, (3, 37)).astype(F32)
    values.tofile(tmp_path / "in.f32")
    for sigmoid in (False, True):
        got = qk.mask(values, sigmoid=sigmoid)
        assert got.shape == (3, 37)
        np.testing.assert_array_equal(got.ravel(), ref_bytes(
            pyref, tmp_path, ["mask", tmp_path / "in.f32", int(sigmoid)], np.uint8))
    scores = rng.normal(0, 3, 23).astype(F32)
    scores.tofile(tmp_path / "in.f32")
    got = qk.softmax(scores)
    np.testing.assert_array_equal(
        got.view(np.uint32), ref_bytes(pyref, tmp_path, ["softmax", tmp_path / "in.f32"], np.uint32))
    # Exponentials rounded to f32, summed in f64 one by one, as the kit does.
    e = np.exp(scores.astype(np.float64)).astype(F32)
    total = 0.0
    for v in e:
        total += float(v)
    np.testing.assert_array_equal(got, (e.astype(np.float64) / total).astype(F32))
    assert (qk.softmax(np.ones(5, F32)) == F32(0.2)).all()


def test_decoders_match_tool(qk, tool, tmp_path):
    rng = np.random.default_rng(8)
    maps = rng.normal(0, 1, (3, 10, 12)).astype(F32)
    maps[1, 7, 2] = 30.0  # one sharp peak
    np.save(tmp_path / "h.npy", maps)
    dec = qk.SoftArgMax(12, 10, 3, beta=2.0)
    for flags, method in (([], dec.decode), (["--confidence"], dec.decode_with_variance),
                          (["--vector"], dec.decode_with_variance_vector)):
        text = run(tool, "decode", tmp_path / "h.npy", "--beta", "2", "--json", *flags)
        points = json.loads(text)["keypoints"]
        got_points, got_conf = method(maps)
        assert got_points.shape == (3, 2) and got_conf.shape == (3,)
        # %.9g round-trips every float32 exactly.
        expected = np.array([[p["x"], p["y"], p["confidence"]] for p in points], F32)
        np.testing.assert_array_equal(np.column_stack([got_points, got_conf]), expected)
    # The peak's channel decodes to its normalised pixel: column 2 of 12, row 7 of 10.
    points, conf = dec.decode_with_variance(maps)
    np.testing.assert_allclose(points[1], [2 / 11 * 2 - 1, 7 / 9 * 2 - 1], atol=1e-4)
    assert conf[1] < 1e-6
    # The deviation is the square root of the vector variance.
    _, var = dec.decode_with_variance_vector(maps)
    _, dev = dec.decode_with_deviation_vector(maps)
    np.testing.assert_array_equal(dev, np.sqrt(var))
    # Equal values decode to the centre.
    centre, _ = qk.SoftArgMax(5, 4, 2).decode(np.ones((2, 4, 5), F32))
    np.testing.assert_allclose(centre, 0, atol=1e-6)


def test_kalman_tracker_matches_tool(qk, tool, tmp_path):
    rng = np.random.default_rng(9)
    frames = [0, 1, 2, 4, 5, 6, 9, 10]  # 3, 7 and 8 are predicted
    boxes = np.array([[0.3 + 0.01 * f, 0.4 - 0.005 * f, 0.2, 0.25] for f in frames], F32)
    boxes += rng.normal(0, 0.003, boxes.shape).astype(F32)
    lines = ["frame,x,y,w,h"] + [f"{f},{b[0]!r},{b[1]!r},{b[2]!r},{b[3]!r}"
                                 for f, b in zip(frames, boxes.tolist())]
    (tmp_path / "in.csv").write_text("\n".join(lines) + "\n")
    run(tool, "track", tmp_path / "in.csv", tmp_path / "out.csv", "--kalman", "--frame",
        "640x360", "--frequency", "25", "--process-noise", "0.02", "--measurement-noise", "0.2")
    rows = [r.split(",") for r in (tmp_path / "out.csv").read_text().splitlines()[1:]]
    expected = np.array([[float(v) for v in r[1:5]] for r in rows], F32)

    tracker = qk.KalmanTracker(640, 360, frequency=25, process_noise=0.02,
                               measurement_noise=0.2)
    tracker.init(boxes[0])
    got, last = [], frames[0] - 1
    for f, box in zip(frames, boxes):
        got += [tracker.predict() for _ in range(last + 1, f)]
        got.append(tracker.track(tuple(box)))
        last = f
    np.testing.assert_array_equal(np.array(got), expected)
    # One-Euro runs on the wall clock; constant input is its fixed point.
    euro = qk.OneEuroTracker(640, 360, frequency=30, min_cutoff=1.0, beta=0.5)
    euro.init([0.25, 0.5, 0.25, 0.25])
    for _ in range(3):
        np.testing.assert_allclose(euro.track([0.25, 0.5, 0.25, 0.25]), [0.25, 0.5, 0.25, 0.25],
                                   rtol=1e-6)


def test_geometry_exact_values(qk):
    # Forward and inverse matrices of the orientation words (W - 1 = 9, H - 1 = 5).
    fwd = {1: [0, -1, 9, 1, 0, 0], 2: [0, 1, 0, -1, 0, 5], 4: [-1, 0, 9, 0, -1, 5],
           17: [0, -1, 9, -1, 0, 5], 20: [1, 0, 0, 0, -1, 5], 64: [1, 0, 0, 0, 1, 0]}
    inv = {1: [0, 1, 0, -1, 0, 9], 2: [0, -1, 5, 1, 0, 0], 10: [0, -1, 5, -1, 0, 9],
           64: [1, 0, 0, 0, 1, 0]}
    for ori, m in fwd.items():
        np.testing.assert_array_equal(qk.affine_matrix(ori, 10, 6), np.reshape(m, (2, 3)))
    for ori, m in inv.items():
        np.testing.assert_array_equal(qk.affine_matrix(ori, 10, 6, inverse=True),
                                      np.reshape(m, (2, 3)))
    np.testing.assert_array_equal(qk.affine_matrix("rotate90r", 2, 2), [[0, -1, 1], [1, 0, 0]])
    # Normalised boxes: a quarter turn, the flip that wins over the mirror,
    # and 64 as a half turn.
    box = (F32(0.1), F32(0.2), F32(0.4), F32(0.7))
    x0, y0, x1, y1 = box
    w, h, one = x1 - x0, y1 - y0, F32(1)
    assert qk.rectify_box(1, box) == (one - (y0 + h), x0, one - y0, x0 + w)
    assert qk.rectify_box(2 | 8 | 16, box) == (one - y1, one - (x0 + w), one - y1 + h, one - x0)
    assert qk.rectify_box(64, box) == (one - x1, one - y1, one - x0, one - y0)
    # In pixels, the corners' bounding box under the forward matrix.
    # ori 1 on a 10 x 6 frame: (x, y) -> (9 - y, x).
    assert qk.rectify_crop(1, (6, 10), (2, 1, 5, 3)) == (6.0, 2.0, 8.0, 5.0)
    np.testing.assert_array_equal(qk.crop_resize_inverse((10, 20, 64, 48), (32, 16)),
                                  [[4, 0, 10], [0, 1.5, 20], [0, 0, 1]])
    assert qk.extend_box((0, 0, 10, 4), 1.0) == (0, -3, 10, 7)
    assert qk.adjust_box((-0.5, 0, 10, 4), 0, 0, 0, 0, 1, 1) == (0, -3, 10, 7)


def test_result_turns_match_library(qk, pyref, tmp_path):
    rng = np.random.default_rng(10)
    boxes = rng.uniform(-0.2, 1.2, (37, 4)).astype(F32)  # more than 16: several records
    points = rng.uniform(0, 1, (600, 2)).astype(F32)     # more than 16 bodies of 35
    x0, y0, x1, y1 = boxes.T
    x, y = points.T
    one = F32(1)
    exact_boxes = {90: [one - y1, x0, one - y0, x1], 180: [one - x1, one - y1, one - x0, one - y0],
                   270: [y0, one - x1, y1, one - x0], 0: [x0, y0, x1, y1]}
    exact_points = {90: [one - y, x], 180: [one - x, one - y], 270: [y, one - x], 0: [x, y]}
    for angle in (0, 90, 180, 270):
        np.testing.assert_array_equal(qk.rotate_boxes(boxes, angle),
                                      np.stack(exact_boxes[angle], 1))
        np.testing.assert_array_equal(qk.rotate_points(points, angle),
                                      np.stack(exact_points[angle], 1))
    np.testing.assert_array_equal(qk.rotate_boxes(boxes, 360), boxes)
    np.testing.assert_array_equal(qk.mirror_points(points), np.stack([one - x, y], 1))
    np.testing.assert_array_equal(qk.flip_v_boxes(boxes), np.stack([x0, one - y1, x1, one - y0], 1))
    boxes.tofile(tmp_path / "b.f32")
    points.tofile(tmp_path / "p.f32")
    for op, angle, fb, fp in (("rotate", 90, qk.rotate_boxes, qk.rotate_points),
                              ("rotate", 270, qk.rotate_boxes, qk.rotate_points),
                              ("mirror", 0, qk.mirror_boxes, qk.mirror_points),
                              ("flipv", 0, qk.flip_v_boxes, qk.flip_v_points)):
        args = (angle,) if op == "rotate" else ()
        np.testing.assert_array_equal(
            fb(boxes, *args).ravel(),
            ref_bytes(pyref, tmp_path, ["boxes", tmp_path / "b.f32", op, angle], F32))
        np.testing.assert_array_equal(
            fp(points, *args).ravel(),
            ref_bytes(pyref, tmp_path, ["points", tmp_path / "p.f32", op, angle], F32))
