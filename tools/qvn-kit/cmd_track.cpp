// cmd_track.cpp - `qvn-kit track IN.csv OUT.csv --kalman | --one-euro`:
// smooths one box over frames with the kit's box trackers. The first box
// starts the tracker (init) and every box is then fed to track(); frames
// missing from the input are filled with predict() and marked "predicted".
//
// The One-Euro tracker times itself by the wall clock. Replayed from a file
// as fast as possible its sampling rate is that of the replay; --realtime
// paces the replay at --frequency so that it sees the intended rate.
#include "commands.hpp"
#include "common.hpp"
#include "console.hpp"
#include "csv.hpp"
#include "svg.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cmath>
#include <utility>
#include <memory>
#include <thread>

namespace qvntool {
namespace {

constexpr float kMinFrequency = 1e-5f, kMaxFrequency = 1e6f;
// Rows written, predicted ones included (about 50 bytes each).
constexpr long kMaxTrackRows = 10000000;

struct TrackOptions {
    std::string in, out, plot;
    bool kalman = false, one_euro = false, realtime = false;
    float frequency = 30.f, min_cutoff = 1.f, beta = 0.f, d_cutoff = 1.f;
    float process_noise = 1e-2f, measurement_noise = 1e-1f;
    std::string frame = "640x480";
};

void RunTrack(const TrackOptions& o) {
    if (o.kalman == o.one_euro) {
        throw ToolError("choose exactly one of --kalman and --one-euro", kExitUsage);
    }
    Size2 frame = ParseSize(o.frame, "frame size");
    for (auto [value, name] : {std::pair<float, const char*>{o.frequency, "--frequency"},
                               {o.min_cutoff, "--min-cutoff"},
                               {o.beta, "--beta"},
                               {o.d_cutoff, "--d-cutoff"},
                               {o.process_noise, "--process-noise"},
                               {o.measurement_noise, "--measurement-noise"}}) {
        Finite(value, name);
    }
    // Between one frame a day and a million a second: the pacing below turns
    // 1 / frequency into clock ticks, which must stay countable.
    if (!(o.frequency >= kMinFrequency && o.frequency <= kMaxFrequency)) {
        throw ToolError("--frequency must be between 1e-5 and 1e6 Hz", kExitUsage);
    }
    std::vector<BoxRow> raw = ReadBoxCsv(o.in);
    const long rows_out = raw.back().frame - raw.front().frame + 1;
    if (rows_out > kMaxTrackRows) {
        throw ToolError("track '" + o.in + "' spans " + std::to_string(rows_out) +
                            " frames, more than the " + std::to_string(kMaxTrackRows) +
                            " rows the tool writes",
                        kExitInput);
    }

    auto params = std::make_shared<quvas::kit::QVTBoxTrackerParams>();
    *params = quvas::kit::QVTBoxTrackerParams{};
    params->frequency = o.frequency;
    params->min_cutoff = o.min_cutoff;
    params->beta = o.beta;
    params->d_cutoff = o.d_cutoff;
    params->process_noise = o.process_noise;
    params->measurement_noise = o.measurement_noise;
    std::unique_ptr<quvas::kit::QVTBoxTracker> tracker;
    if (o.kalman) {
        tracker = std::make_unique<quvas::kit::QVTBoxKalmanTracker>(frame.w, frame.h, params);
    } else {
        tracker = std::make_unique<quvas::kit::QVTBoxOneEuroTracker>(frame.w, frame.h, params);
    }

    // Frame n is due n periods after the start, counted in double seconds
    // so that no integer tick count can overflow.
    const double period = 1.0 / static_cast<double>(o.frequency);
    const auto start = std::chrono::steady_clock::now();
    long paced = 0;
    auto pace = [&] {
        if (!o.realtime) return;
        ++paced;
        std::this_thread::sleep_until(
            start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                        std::chrono::duration<double>(period * static_cast<double>(paced))));
    };

    std::vector<BoxRow> smooth;
    auto keep = [&](const BoxRow& r) {
        if (!std::isfinite(r.x) || !std::isfinite(r.y) || !std::isfinite(r.w) ||
            !std::isfinite(r.h)) {
            throw ToolError("tracking gave a non-finite box at frame " +
                                std::to_string(r.frame) + " (values or noise too large)",
                            kExitInput);
        }
        smooth.push_back(r);
    };
    Progress progress("track", static_cast<long>(raw.size()));
    tracker->init(raw[0].x, raw[0].y, raw[0].w, raw[0].h);
    long last = raw[0].frame - 1;
    for (size_t i = 0; i < raw.size(); ++i) {
        for (long f = last + 1; f < raw[i].frame; ++f) {
            pace();
            BoxRow p;
            p.frame = f;
            p.predicted = true;
            tracker->predict(&p.x, &p.y, &p.w, &p.h);
            keep(p);
        }
        pace();
        BoxRow r = raw[i];
        tracker->track(&r.x, &r.y, &r.w, &r.h);
        keep(r);
        last = raw[i].frame;
        progress.Step(static_cast<long>(i + 1));
    }
    CheckLibrary("the library refused the track");
    std::string csv = BoxCsvText(smooth);
    std::string svg;
    if (!o.plot.empty()) {
        svg = TrackSvg(raw, smooth, frame.w, frame.h, o.kalman ? "Kalman" : "One-Euro");
    }
    WriteTextAtomically(o.out, csv);
    if (!o.plot.empty()) WriteTextAtomically(o.plot, svg);
}

}  // namespace

void AddTrackCommand(CLI::App& app) {
    auto opts = std::make_shared<TrackOptions>();
    CLI::App* cmd = app.add_subcommand(
        "track", "Smooth a box track (CSV frame,x,y,w,h, normalised) with a Kalman or "
                 "One-Euro tracker");
    cmd->add_option("IN", opts->in, "Input CSV: frame,x,y,w,h (optional header)")->required();
    cmd->add_option("OUT", opts->out, "Output CSV: frame,x,y,w,h,kind")->required();
    cmd->add_flag("--kalman", opts->kalman, "Constant-acceleration Kalman tracker");
    cmd->add_flag("--one-euro", opts->one_euro, "One-Euro tracker (wall-clock timed)");
    cmd->add_option("--frequency", opts->frequency, "Frame rate in Hz (30)");
    cmd->add_option("--min-cutoff", opts->min_cutoff, "One-Euro minimum cutoff in Hz (1)");
    cmd->add_option("--beta", opts->beta, "One-Euro speed coefficient (0)");
    cmd->add_option("--d-cutoff", opts->d_cutoff, "One-Euro derivative cutoff in Hz (1)");
    cmd->add_option("--process-noise", opts->process_noise, "Kalman process noise (0.01)");
    cmd->add_option("--measurement-noise", opts->measurement_noise,
                    "Kalman measurement noise (0.1)");
    cmd->add_option("--frame", opts->frame, "Frame size in pixels WxH (640x480)");
    cmd->add_flag("--realtime", opts->realtime, "Replay at --frequency (for One-Euro timing)");
    cmd->add_option("--plot", opts->plot, "Also draw raw against smoothed tracks as SVG");
    cmd->callback([opts] { RunTrack(*opts); });
}

}  // namespace qvntool
