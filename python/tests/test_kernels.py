"""Turns, warps, masks, decoders, trackers and geometry: the module against
the command-line tool (which the C++ tests hold to the library) and exact
values."""
import json

import numpy as np
import pytest

from conftest import picture, run, write_png

F32 = np.float32


def test_turns_match_definitions(qk):
    for shape in [(5, 7), (5, 7, 3), (4, 9, 4), (3, 6, 2)]:
        img = np.random.default_rng(len(shape)).integers(0, 256, shape, np.uint8)
        for angle in (0, 90, 180, 270):  # np.rot90 turns counter-clockwise
            np.testing.assert_array_equal(qk.rotate(img, angle), np.rot90(img, -angle // 90))
        np.testing.assert_array_equal(qk.mirror(img), img[:, ::-1])
        np.testing.assert_array_equal(qk.flip_v(img), img[::-1])


@pytest.mark.parametrize("channels", [1, 3, 4])
def test_warps_match_tool(qk, tool, tmp_path, channels):
    img = picture(23, 29, channels=max(channels, 3), seed=channels)[..., :channels]
    if channels == 1:
        img = img[..., 0]
    img = np.ascontiguousarray(img)
    write_png(tmp_path / "in.png", img)
    # A turn, a scale and a shift that moves part of the output outside.
    a = np.deg2rad(17.0)
    m = np.array([[np.cos(a) * 1.3, -np.sin(a) * 1.3, 6.25],
                  [np.sin(a) * 1.3, np.cos(a) * 1.3, -3.5]], F32)
    for vector in (False, True):
        got = qk.warp(img, m, (19, 26), border=33, vector=vector)
        run(tool, "warp", tmp_path / "in.png", tmp_path / "out.png", "--size", "26x19",
            "--border", "33", "--matrix", ",".join(f"{v:.9g}" for v in m.ravel()),
            *(["--vector"] if vector else []))
        tool_out = qk.read_picture(str(tmp_path / "out.png"))
        np.testing.assert_array_equal(got.ravel(), tool_out.ravel())
        assert (got == 33).any() and (got != 33).any()
        # Two bytes a pixel (no picture format has them) warp as two planes.
        if channels == 3:
            two = qk.warp(np.ascontiguousarray(img[..., :2]), m, (19, 26), border=33, vector=vector)
            for c in range(2):
                np.testing.assert_array_equal(two[..., c], qk.warp(
                    np.ascontiguousarray(img[..., c]), m, (19, 26), border=33, vector=vector))
    # The identity copies all but the last row and column, which are border.
    same = qk.warp(img, [1, 0, 0, 0, 1, 0], img.shape[:2], border=9)
    np.testing.assert_array_equal(same[:-1, :-1], img[:-1, :-1])
    assert (same[-1] == 9).all() and (same[:, -1] == 9).all()


def test_masks_and_softmax_match_tool_and_definition(qk, tool, tmp_path):
    # Any shape, any n: the blocks inside the array and the tail agree with
    # the kernel run over the whole (padded) array.
    rng = np.random.default_rng(7)
    values = rng.normal(0.5, 0.6, (3, 37)).astype(F32)
    np.save(tmp_path / "in.npy", values)
    for sigmoid in (False, True):
        got = qk.mask(values, sigmoid=sigmoid)
        run(tool, "mask", tmp_path / "in.npy", tmp_path / "m.png",
            *(["--sigmoid"] if sigmoid else []))
        np.testing.assert_array_equal(got, qk.read_picture(str(tmp_path / "m.png")).reshape(3, 37))
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
    # The deviation is the square root of the vector variance.
    _, var = dec.decode_with_variance_vector(maps)
    _, dev = dec.decode_with_deviation_vector(maps)
    np.testing.assert_array_equal(dev, np.sqrt(var))


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
    fwd = {1: [0, -1, 9, 1, 0, 0], 17: [0, -1, 9, -1, 0, 5], 64: [1, 0, 0, 0, 1, 0]}
    inv = {1: [0, 1, 0, -1, 0, 9], 10: [0, -1, 5, -1, 0, 9]}
    for ori, m in fwd.items():
        np.testing.assert_array_equal(qk.affine_matrix(ori, 10, 6), np.reshape(m, (2, 3)))
    for ori, m in inv.items():
        np.testing.assert_array_equal(qk.affine_matrix(ori, 10, 6, inverse=True),
                                      np.reshape(m, (2, 3)))
    np.testing.assert_array_equal(qk.affine_matrix("rotate90r", 2, 2), [[0, -1, 1], [1, 0, 0]])
    # Normalised boxes: a quarter turn.
    box = (F32(0.1), F32(0.2), F32(0.4), F32(0.7))
    x0, y0, x1, y1 = box
    w, h, one = x1 - x0, y1 - y0, F32(1)
    assert qk.rectify_box(1, box) == (one - (y0 + h), x0, one - y0, x0 + w)
    # In pixels, the corners' bounding box under the forward matrix.
    # ori 1 on a 10 x 6 frame: (x, y) -> (9 - y, x).
    assert qk.rectify_crop(1, (6, 10), (2, 1, 5, 3)) == (6.0, 2.0, 8.0, 5.0)
    np.testing.assert_array_equal(qk.crop_resize_inverse((10, 20, 64, 48), (32, 16)),
                                  [[4, 0, 10], [0, 1.5, 20], [0, 0, 1]])
    assert qk.extend_box((0, 0, 10, 4), 1.0) == (0, -3, 10, 7)
    assert qk.adjust_box((-0.5, 0, 10, 4), 0, 0, 0, 0, 1, 1) == (0, -3, 10, 7)


def test_result_turns_match_definitions(qk):
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
    np.testing.assert_array_equal(qk.mirror_boxes(boxes), np.stack([one - x1, y0, one - x0, y1], 1))
    np.testing.assert_array_equal(qk.flip_v_points(points), np.stack([x, one - y], 1))
    np.testing.assert_array_equal(qk.flip_v_boxes(boxes), np.stack([x0, one - y1, x1, one - y0], 1))
