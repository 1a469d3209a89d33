// annotate.cpp - boxes and ids on the Y, U, V planes; clips through
// libavcodec; one frame as a PNG.
#include "annotate.hpp"

#include "error.hpp"
#include "image_io.hpp"
#include "plane_views.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

namespace people {

using qvntool::ToolError;
using qvntool::VideoFrame;

namespace {

// Y, U, V of saturated colours (BT.601, limited range), one per id.
constexpr uint8_t kPalette[6][3] = {{81, 90, 240},  {145, 54, 34},  {41, 240, 110},
                                    {210, 16, 146}, {170, 166, 16}, {106, 202, 222}};

// 3 x 5 digits, one row of three bits per line, the top row first.
constexpr uint8_t kDigits[10][5] = {{7, 5, 5, 5, 7}, {2, 6, 2, 2, 7}, {7, 1, 7, 4, 7},
                                    {7, 1, 7, 1, 7}, {5, 5, 7, 1, 1}, {7, 4, 7, 1, 7},
                                    {7, 4, 7, 5, 7}, {7, 1, 1, 1, 1}, {7, 5, 7, 5, 7},
                                    {7, 5, 7, 1, 7}};
constexpr int kDigitScale = 3;

// Fills luma pixels [x0, x1) x [y0, y1) with `yuv`, chroma over the 2 x 2
// blocks they touch; clipped to the frame.
void Fill(VideoFrame& f, int x0, int y0, int x1, int y1, const uint8_t* yuv, bool luma_only) {
    x0 = std::max(x0, 0), y0 = std::max(y0, 0);
    x1 = std::min(x1, f.width), y1 = std::min(y1, f.height);
    if (x0 >= x1 || y0 >= y1) return;
    uint8_t* const* p = const_cast<uint8_t* const*>(f.plane);
    for (int y = y0; y < y1; ++y) std::memset(p[0] + y * f.stride[0] + x0, yuv[0], x1 - x0);
    if (luma_only) return;
    for (int c = 1; c < 3; ++c) {
        for (int y = y0 / 2; y < (y1 + 1) / 2; ++y) {
            std::memset(p[c] + y * f.stride[c] + x0 / 2, yuv[c], (x1 + 1) / 2 - x0 / 2);
        }
    }
}

void DrawId(VideoFrame& f, int x, int y, int id, const uint8_t* colour) {
    const std::string text = std::to_string(id);
    const int cell = 4 * kDigitScale;
    const int w = static_cast<int>(text.size()) * cell + kDigitScale, h = 7 * kDigitScale;
    Fill(f, x, y, x + w, y + h, colour, false);
    // Black digits on the light tags, white on the dark ones.
    const uint8_t ink[3] = {static_cast<uint8_t>(colour[0] > 128 ? 16 : 235), 128, 128};
    for (size_t i = 0; i < text.size(); ++i) {
        const uint8_t* glyph = kDigits[text[i] - '0'];
        for (int r = 0; r < 5; ++r) {
            for (int c = 0; c < 3; ++c) {
                if (!(glyph[r] & (4 >> c))) continue;
                const int px = x + kDigitScale + static_cast<int>(i) * cell + c * kDigitScale;
                const int py = y + kDigitScale + r * kDigitScale;
                Fill(f, px, py, px + kDigitScale, py + kDigitScale, ink, true);
            }
        }
    }
}

void Check(int err, const std::string& what, const std::string& path) {
    if (err >= 0) return;
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(err, text, sizeof text);
    throw ToolError("cannot " + what + " '" + path + "': " + text, qvntool::kExitOutput);
}

}  // namespace

const VideoFrame& Annotator::Draw(const VideoFrame& in, const std::vector<TrackBox>& tracks) {
    out_ = in;
    out_.layout = qvntool::VideoLayout::kI420;
    const int cw = in.width / 2, ch = in.height / 2;
    planes_[0].resize(static_cast<size_t>(in.width) * in.height);
    planes_[1].resize(static_cast<size_t>(cw) * ch);
    planes_[2].resize(static_cast<size_t>(cw) * ch);
    for (int y = 0; y < in.height; ++y) {
        std::memcpy(&planes_[0][static_cast<size_t>(y) * in.width],
                    in.plane[0] + y * in.stride[0], in.width);
    }
    for (int y = 0; y < ch; ++y) {
        uint8_t* u = &planes_[1][static_cast<size_t>(y) * cw];
        uint8_t* v = &planes_[2][static_cast<size_t>(y) * cw];
        if (in.layout == qvntool::VideoLayout::kI420) {
            std::memcpy(u, in.plane[1] + y * in.stride[1], cw);
            std::memcpy(v, in.plane[2] + y * in.stride[2], cw);
            continue;
        }
        // Two-plane: interleaved U, V (nv12) or V, U (nv21).
        const uint8_t* row = in.plane[1] + y * in.stride[1];
        const int first = in.layout == qvntool::VideoLayout::kNV12 ? 0 : 1;
        for (int x = 0; x < cw; ++x) u[x] = row[2 * x + first], v[x] = row[2 * x + 1 - first];
    }
    for (int p = 0; p < 3; ++p) {
        out_.plane[p] = planes_[p].data();
        out_.stride[p] = p ? cw : in.width;
    }
    for (const TrackBox& t : tracks) {
        const uint8_t* colour = kPalette[t.id % 6];
        const int x0 = static_cast<int>(std::lround(t.box.x0 * in.width));
        const int y0 = static_cast<int>(std::lround(t.box.y0 * in.height));
        const int x1 = static_cast<int>(std::lround(t.box.x1 * in.width));
        const int y1 = static_cast<int>(std::lround(t.box.y1 * in.height));
        Fill(out_, x0, y0, x1, y0 + 2, colour, false);
        Fill(out_, x0, y1 - 2, x1, y1, colour, false);
        Fill(out_, x0, y0, x0 + 2, y1, colour, false);
        Fill(out_, x1 - 2, y0, x1, y1, colour, false);
        DrawId(out_, x0, y0, t.id, colour);
    }
    return out_;
}

ClipWriter::ClipWriter(const std::string& path, const std::string& encoder, int width,
                       int height, int fps)
    : path_(path) {
    Check(avformat_alloc_output_context2(&fmt_, nullptr, nullptr, path.c_str()),
          "find a container for", path);
    const AVCodec* codec = avcodec_find_encoder_by_name(encoder.c_str());
    if (!codec) {
        throw ToolError("no " + encoder + " encoder in this FFmpeg, for '" + path + "'",
                        qvntool::kExitOutput);
    }
    stream_ = avformat_new_stream(fmt_, nullptr);
    ctx_ = avcodec_alloc_context3(codec);
    frame_ = av_frame_alloc();
    packet_ = av_packet_alloc();
    if (!stream_ || !ctx_ || !frame_ || !packet_) throw std::bad_alloc();
    ctx_->width = width;
    ctx_->height = height;
    ctx_->pix_fmt = AV_PIX_FMT_YUV420P;
    ctx_->time_base = AVRational{1, fps};
    ctx_->framerate = AVRational{fps, 1};
    ctx_->gop_size = 12;
    ctx_->thread_count = 1;
    if (encoder == "mpeg4") {
        // Constant quantiser 3: sharp enough for thin lines and digits.
        ctx_->flags |= AV_CODEC_FLAG_QSCALE;
        ctx_->global_quality = FF_QP2LAMBDA * 3;
    }
    if (fmt_->oformat->flags & AVFMT_GLOBALHEADER) ctx_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    Check(avcodec_open2(ctx_, codec, nullptr), "open the encoder for", path);
    Check(avcodec_parameters_from_context(stream_->codecpar, ctx_), "set up", path);
    stream_->time_base = ctx_->time_base;
    if (!(fmt_->oformat->flags & AVFMT_NOFILE)) {
        Check(avio_open(&fmt_->pb, path.c_str(), AVIO_FLAG_WRITE), "create", path);
    }
    Check(avformat_write_header(fmt_, nullptr), "write the header of", path);
    open_ = true;
    frame_->format = AV_PIX_FMT_YUV420P;
    frame_->width = width;
    frame_->height = height;
    Check(av_frame_get_buffer(frame_, 0), "allocate a frame for", path);
}

ClipWriter::~ClipWriter() {
    if (fmt_ && fmt_->pb && !(fmt_->oformat->flags & AVFMT_NOFILE)) avio_closep(&fmt_->pb);
    av_packet_free(&packet_);
    av_frame_free(&frame_);
    avcodec_free_context(&ctx_);
    avformat_free_context(fmt_);
}

void ClipWriter::Write(const uint8_t* const planes[3], const ptrdiff_t strides[3]) {
    Check(av_frame_make_writable(frame_), "write a frame of", path_);
    for (int p = 0; p < 3; ++p) {
        const int w = p ? frame_->width / 2 : frame_->width;
        const int h = p ? frame_->height / 2 : frame_->height;
        for (int y = 0; y < h; ++y) {
            std::memcpy(frame_->data[p] + y * frame_->linesize[p], planes[p] + y * strides[p], w);
        }
    }
    frame_->pts = pts_++;
    Check(avcodec_send_frame(ctx_, frame_), "encode a frame of", path_);
    Drain();
}

void ClipWriter::Drain() {
    for (;;) {
        const int err = avcodec_receive_packet(ctx_, packet_);
        if (err == AVERROR(EAGAIN) || err == AVERROR_EOF) return;
        Check(err, "encode a frame of", path_);
        // Every frame lasts one tick: without a duration the container's edit
        // list cuts the last frame off.
        if (packet_->duration == 0) packet_->duration = 1;
        av_packet_rescale_ts(packet_, ctx_->time_base, stream_->time_base);
        packet_->stream_index = stream_->index;
        Check(av_interleaved_write_frame(fmt_, packet_), "write", path_);
    }
}

void ClipWriter::Finish() {
    if (!open_) return;
    open_ = false;
    Check(avcodec_send_frame(ctx_, nullptr), "finish", path_);
    Drain();
    Check(av_write_trailer(fmt_), "finish", path_);
    if (!(fmt_->oformat->flags & AVFMT_NOFILE)) Check(avio_closep(&fmt_->pb), "close", path_);
}

void WriteFramePng(const std::string& path, const VideoFrame& frame) {
    namespace kit = quvas::kit;
    qvntool::Picture pic(frame.width, frame.height, 3);
    kit::TensorOptions t;
    t.width = frame.width;
    t.height = frame.height;
    t.letterbox = kit::Letterbox::kOff;
    kit::TensorBuffer buf;
    buf.data = pic.pixels.data();
    buf.order = kit::TensorOrder::kInterleaved;
    if (!kit::QV_OnePass_Convert_FrameView_To_Tensor(qvntool::VideoFrameView(frame, 0), t, buf,
                                                     nullptr)) {
        throw ToolError("the kit refused to convert the frame for '" + path + "'",
                        qvntool::kExitLibrary);
    }
    qvntool::WritePng(path, pic);
}

}  // namespace people
