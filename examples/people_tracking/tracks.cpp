// tracks.cpp - the tracker set: one kit Kalman box tracker per person,
// greedy overlap association, birth after a run of hits, end after a run of
// misses.
#include "people_loop.hpp"

#include <qvn_kit/qv_filters.hpp>

#include <algorithm>
#include <cmath>
#include <tuple>

namespace people {

namespace kit = quvas::kit;

struct TrackSet::Track {
    Track(int w, int h, const std::shared_ptr<kit::QVTBoxTrackerParams>& p) : kalman(w, h, p) {}
    kit::QVTBoxKalmanTracker kalman;
    int id = 0;  // 0 while tentative
    int hits = 0, misses = 0;
};

namespace {

bool Usable(const QVN_Rect2D& r) {
    return std::isfinite(r.x0) && std::isfinite(r.y0) && std::isfinite(r.x1) &&
           std::isfinite(r.y1) && r.x1 > r.x0 && r.y1 > r.y0;
}

float Iou(const QVN_Rect2D& a, const QVN_Rect2D& b) {
    const float w = std::min(a.x1, b.x1) - std::max(a.x0, b.x0);
    const float h = std::min(a.y1, b.y1) - std::max(a.y0, b.y0);
    if (w <= 0 || h <= 0) return 0;
    const float inter = w * h;
    const float uni = (a.x1 - a.x0) * (a.y1 - a.y0) + (b.x1 - b.x0) * (b.y1 - b.y0) - inter;
    return uni > 0 ? inter / uni : 0;
}

QVN_Rect2D FromXywh(float x, float y, float w, float h) { return {x, y, x + w, y + h}; }

}  // namespace

TrackSet::TrackSet(int width, int height, float frequency, const TrackRules& rules)
    : width_(width), height_(height), rules_(rules),
      params_(std::make_shared<kit::QVTBoxTrackerParams>()) {
    *params_ = kit::QVTBoxTrackerParams{};
    params_->frequency = frequency;
    params_->process_noise = rules.process_noise;
    params_->measurement_noise = rules.measurement_noise;
}

TrackSet::~TrackSet() = default;

std::vector<TrackBox> TrackSet::Update(const std::vector<QVN_Rect2D>& detections) {
    std::vector<QVN_Rect2D> dets;
    for (const QVN_Rect2D& d : detections) {
        if (Usable(d)) dets.push_back(d);
    }
    // Where each track expects its person now: a prediction on a copy of
    // its filter, so that the track itself advances once per frame (by
    // track() on a hit, predict() on a miss).
    std::vector<QVN_Rect2D> expected(tracks_.size());
    for (size_t t = 0; t < tracks_.size(); ++t) {
        kit::QVTBoxKalmanTracker probe(width_, height_, params_);
        probe.filter = std::make_shared<kit::KalmanFilter<kit::FilterMatrix>>(
            *tracks_[t]->kalman.filter);
        float x, y, w, h;
        probe.predict(&x, &y, &w, &h);
        expected[t] = FromXywh(x, y, w, h);
    }
    std::vector<std::tuple<float, size_t, size_t>> pairs;
    for (size_t t = 0; t < tracks_.size(); ++t) {
        for (size_t d = 0; d < dets.size(); ++d) {
            const float iou = Iou(expected[t], dets[d]);
            if (iou >= rules_.min_iou) pairs.emplace_back(iou, t, d);
        }
    }
    // Best overlap first; ties go to the older track, then the earlier box.
    std::sort(pairs.begin(), pairs.end(), [](const auto& a, const auto& b) {
        if (std::get<0>(a) != std::get<0>(b)) return std::get<0>(a) > std::get<0>(b);
        return std::make_pair(std::get<1>(a), std::get<2>(a)) <
               std::make_pair(std::get<1>(b), std::get<2>(b));
    });
    std::vector<int> det_of(tracks_.size(), -1);
    std::vector<bool> det_used(dets.size(), false);
    for (const auto& [iou, t, d] : pairs) {
        if (det_of[t] >= 0 || det_used[d]) continue;
        det_of[t] = static_cast<int>(d);
        det_used[d] = true;
    }

    std::vector<TrackBox> seen;
    std::vector<std::unique_ptr<Track>> kept;
    for (size_t t = 0; t < tracks_.size(); ++t) {
        Track& tr = *tracks_[t];
        float x, y, w, h;
        if (det_of[t] >= 0) {
            const QVN_Rect2D& d = dets[static_cast<size_t>(det_of[t])];
            x = d.x0, y = d.y0, w = d.x1 - d.x0, h = d.y1 - d.y0;
            tr.kalman.track(&x, &y, &w, &h);
            ++tr.hits;
            tr.misses = 0;
            if (tr.id == 0 && tr.hits >= rules_.min_hits) tr.id = next_id_++;
        } else {
            // A tentative track needs an unbroken run of hits.
            if (tr.id == 0 || ++tr.misses > rules_.max_misses) continue;
            tr.kalman.predict(&x, &y, &w, &h);
        }
        const QVN_Rect2D box = FromXywh(x, y, w, h);
        // A filter gone non-finite never comes back: end the track.
        if (!std::isfinite(box.x0) || !std::isfinite(box.y0) || !std::isfinite(box.x1) ||
            !std::isfinite(box.y1)) {
            continue;
        }
        if (tr.id > 0 && tr.misses == 0) seen.push_back({tr.id, box});
        kept.push_back(std::move(tracks_[t]));
    }
    for (size_t d = 0; d < dets.size(); ++d) {
        if (det_used[d]) continue;
        auto tr = std::make_unique<Track>(width_, height_, params_);
        const QVN_Rect2D& b = dets[d];
        tr->kalman.init(b.x0, b.y0, b.x1 - b.x0, b.y1 - b.y0);
        tr->hits = 1;
        if (rules_.min_hits <= 1) {
            tr->id = next_id_++;
            seen.push_back({tr->id, b});
        }
        kept.push_back(std::move(tr));
    }
    tracks_ = std::move(kept);
    std::sort(seen.begin(), seen.end(),
              [](const TrackBox& a, const TrackBox& b) { return a.id < b.id; });
    return seen;
}

}  // namespace people
