// people_loop.hpp - the whole loop of an on-device detector around the kit:
// decoded frame -> one-pass tensor -> detector -> boxes back in the frame ->
// one Kalman box tracker per person -> the object-count record, turned into
// the display's orientation.
//
// Nothing here knows the detector: it is handed a tensor and gives boxes in
// tensor pixels. The example's main.cpp plugs in OpenCV's HOG people
// detector; the tests plug in a stand-in.
#ifndef QVN_EXAMPLES_PEOPLE_LOOP_HPP
#define QVN_EXAMPLES_PEOPLE_LOOP_HPP

#include "video_reader.hpp"

#include <qvn_kit/frame_tensor.hpp>
#include <qvn_kit/qvn_kit.h>
#include <qvn_kit/qvn_kit.hpp>

#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace people {

// A box in tensor pixels (continuous: pixel (i, j) covers [i, i + 1) x
// [j, j + 1)), as a detector reports it.
struct Detection {
    float x = 0, y = 0, w = 0, h = 0;
    float score = 0;
};

// What a detector wants and what it does with it.
class Detector {
public:
    virtual ~Detector() = default;
    // The tensor it takes: width x height, one gray plane or three planes
    // B, G, R (planar, bytes).
    virtual int InputWidth() const = 0;
    virtual int InputHeight() const = 0;
    virtual bool Gray() const = 0;
    // `planes` is C x H x W bytes, packed.
    virtual std::vector<Detection> Detect(const uint8_t* planes) = 0;
};

// Birth and death of tracks. A detection that overlaps no live track starts
// a tentative track; it is born (gets the next id, from 1) on its
// `min_hits`-th consecutive detection and dropped on its first miss. A born
// track ends after `max_misses` consecutive frames without a detection;
// while it misses, it coasts on the tracker's prediction but is not reported.
// A detection joins the track it overlaps most (intersection over union at
// least `min_iou` with the track's predicted box), greedily, best pair first.
struct TrackRules {
    int min_hits = 4;
    int max_misses = 8;
    float min_iou = 0.2f;
    float process_noise = 1.0f;      // the kit tracker's parameters
    float measurement_noise = 4.0f;
};

// A reported track: its id and box (normalised x0, y0, x1, y1).
struct TrackBox {
    int id = 0;
    QVN_Rect2D box{};
};

// One kit Kalman box tracker per track, with the rules above. Boxes are
// normalised to the frame given at construction (width x height pixels, the
// tracker's pixel space). Boxes that are not finite, or empty, are never
// fed to a tracker.
class TrackSet {
public:
    TrackSet(int width, int height, float frequency, const TrackRules& rules);
    ~TrackSet();
    // One frame's detections (normalised x0, y0, x1, y1); returns the born
    // tracks detected in this frame, in order of id.
    std::vector<TrackBox> Update(const std::vector<QVN_Rect2D>& detections);

private:
    struct Track;
    int width_, height_;
    TrackRules rules_;
    std::shared_ptr<quvas::kit::QVTBoxTrackerParams> params_;
    std::vector<std::unique_ptr<Track>> tracks_;
    int next_id_ = 1;
};

// How the footage is presented and converted.
struct LoopOptions {
    // Frame numbers first <= n < end, every `every`-th from `first`.
    long first = 0, end = LONG_MAX, every = 1;
    // 0: frames as decoded. 90 or 270: each decoded frame is first turned
    // that many degrees clockwise, as a sensor mounted sideways delivers it,
    // and tagged so that the converter turns it back (colour only: gray
    // tensors keep the frame's turn).
    int rotate = 0;
    // The tensor's letterbox (kOff: the picture is stretched to the tensor)
    // and its padding byte.
    quvas::kit::Letterbox letterbox = quvas::kit::Letterbox::kCentre;
    uint8_t letterbox_pad = 0;
    TrackRules rules;
    // When set: the tensor handed to the detector, for each kept frame, as
    // DIR/tensor_<frame, 6 digits>.npy (C x H x W bytes).
    std::string dump_dir;
};

// What one kept frame gave. Boxes are normalised to the upright frame (the
// decoded picture), whatever the presentation.
struct FrameResult {
    long frame = 0;
    double seconds = 0;
    bool has_time = false;
    std::vector<QVN_Rect2D> detections;  // mapped back, before tracking
    std::vector<TrackBox> tracks;        // the record's boxes with their ids
    quvas::kit::TensorTransform transform;  // of the frame as presented
};

// Microseconds per kept frame, each stage's median.
struct StageTimes {
    double decode = 0, convert = 0, detect = 0, track = 0;
    long frames = 0, decoded = 0;
    double Total() const { return decode + convert + detect + track; }
    // The kit's share: conversion and tracking over the whole.
    double KitShare() const { return Total() > 0 ? (convert + track) / Total() : 0; }
};

// Called for every kept frame with its result and the decoded frame
// (upright, valid during the call).
using FrameSink = std::function<void(const FrameResult&, const qvntool::VideoFrame&)>;

// Runs the loop over the video at `path`. qvntool::ToolError for a file that
// cannot be read, a video cut short (after the frames before the damage went
// to `sink`), options the kit refuses, or a presentation it cannot make.
StageTimes RunLoop(const std::string& path, const LoopOptions& options, Detector& detector,
                   const FrameSink& sink);

// The per-stage table (Markdown), with `note` under it.
std::string TimingTable(const StageTimes& t, const std::string& note);

// One line of tracks.jsonl: {"frame": n, "time": s or null, "count": k,
// "tracks": [{"id": i, "box": [x0, y0, x1, y1]}, ...]}, normalised boxes.
std::string TrackLine(const FrameResult& r);

}  // namespace people

#endif  // QVN_EXAMPLES_PEOPLE_LOOP_HPP
