// video_reader.cpp - the demux and decode loop over FFmpeg's libraries.
#include "video_reader.hpp"

#include "error.hpp"
#include "limits.hpp"
#include "notice.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace qvntool {
namespace {

std::string AvError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, text, sizeof text);
    return text;
}

VideoMatrix MatrixOf(AVColorSpace space) {
    switch (space) {
        case AVCOL_SPC_BT709: return VideoMatrix::kBT709;
        case AVCOL_SPC_SMPTE170M:
        case AVCOL_SPC_BT470BG: return VideoMatrix::kBT601;
        default: return VideoMatrix::kUnspecified;
    }
}

// The "j" formats are full range whatever the tag says (FFmpeg's own rule).
VideoRange RangeOf(AVColorRange range, int pix_fmt) {
    if (pix_fmt == AV_PIX_FMT_YUVJ420P || range == AVCOL_RANGE_JPEG) return VideoRange::kFull;
    if (range == AVCOL_RANGE_MPEG) return VideoRange::kLimited;
    return VideoRange::kUnspecified;
}

bool FullRangeFormat(int pix_fmt) {
    return pix_fmt == AV_PIX_FMT_YUVJ420P || pix_fmt == AV_PIX_FMT_YUVJ422P ||
           pix_fmt == AV_PIX_FMT_YUVJ444P || pix_fmt == AV_PIX_FMT_YUVJ440P ||
           pix_fmt == AV_PIX_FMT_YUVJ411P;
}

}  // namespace

struct VideoReader::State {
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
    AVFrame* converted = nullptr;  // libswscale's yuv420p for other decoder formats
    SwsContext* sws = nullptr;
    int stream = -1;
    long next_number = 0;
    long refused_packets = 0;
    long empty_packets = 0;  // a container's "repeat the last frame": no frame comes out
    int read_error = 0;  // the error av_read_frame stopped on, 0 at a clean end
    bool flushed = false;
    bool done = false;
    bool noted_conversion = false;

    ~State() {
        sws_freeContext(sws);
        av_frame_free(&converted);
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&codec);
        avformat_close_input(&format);
    }
};

VideoReader::VideoReader(const std::string& path) : path_(path), s_(new State) {
    // The tool reports faults as one line of its own; FFmpeg's lines about
    // damaged packets would come between them.
    av_log_set_level(AV_LOG_QUIET);
    int rc = avformat_open_input(&s_->format, path.c_str(), nullptr, nullptr);
    if (rc < 0) throw ToolError("cannot open video '" + path + "': " + AvError(rc), kExitInput);
    rc = avformat_find_stream_info(s_->format, nullptr);
    if (rc < 0) {
        throw ToolError("cannot read video '" + path + "': " + AvError(rc), kExitInput);
    }
    const AVCodec* decoder = nullptr;
    s_->stream = av_find_best_stream(s_->format, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
    if (s_->stream == AVERROR_STREAM_NOT_FOUND) {
        throw ToolError("'" + path + "' holds no video stream", kExitInput);
    }
    if (s_->stream < 0 || decoder == nullptr) {
        throw ToolError("video '" + path + "' uses a codec this build cannot decode",
                        kExitInput);
    }
    AVStream* st = s_->format->streams[s_->stream];
    CheckPixels(static_cast<uint64_t>(st->codecpar->width),
                static_cast<uint64_t>(st->codecpar->height), "video '" + path + "'", kExitInput);
    s_->codec = avcodec_alloc_context3(decoder);
    s_->packet = av_packet_alloc();
    s_->frame = av_frame_alloc();
    if (s_->codec == nullptr || s_->packet == nullptr || s_->frame == nullptr) {
        throw ToolError("cannot start the video decoder: out of memory", 1);
    }
    rc = avcodec_parameters_to_context(s_->codec, st->codecpar);
    // One thread: frames come out as soon as they are decoded, and the
    // decode time per frame is what one core spends.
    s_->codec->thread_count = 1;
    s_->codec->pkt_timebase = st->time_base;
    if (rc >= 0) rc = avcodec_open2(s_->codec, decoder, nullptr);
    if (rc < 0) {
        throw ToolError("cannot open the decoder of video '" + path + "': " + AvError(rc),
                        kExitInput);
    }
}

VideoReader::~VideoReader() = default;

long VideoReader::DeclaredFrames() const {
    return static_cast<long>(s_->format->streams[s_->stream]->nb_frames);
}

int VideoReader::Width() const { return s_->codec->width; }
int VideoReader::Height() const { return s_->codec->height; }

std::string VideoReader::Describe() const {
    const char* fmt = av_get_pix_fmt_name(s_->codec->pix_fmt);
    return std::string(s_->codec->codec->name) + " " + (fmt != nullptr ? fmt : "unknown");
}

bool VideoReader::Next(VideoFrame& frame) {
    while (!s_->done) {
        if (Receive(frame)) return true;
        if (s_->flushed) {
            s_->done = true;
            break;
        }
        const int rc = av_read_frame(s_->format, s_->packet);
        if (rc < 0) {
            if (rc != AVERROR_EOF) s_->read_error = rc;
            // A null packet drains the frames the decoder still holds.
            avcodec_send_packet(s_->codec, nullptr);
            s_->flushed = true;
            continue;
        }
        if (s_->packet->stream_index == s_->stream) {
            // An empty packet would tell the decoder the stream has ended.
            if (s_->packet->size == 0) {
                ++s_->empty_packets;
            } else {
                const int sent = avcodec_send_packet(s_->codec, s_->packet);
                if (sent < 0 && sent != AVERROR(EAGAIN)) ++s_->refused_packets;
            }
        }
        av_packet_unref(s_->packet);
    }
    CheckComplete();
    return false;
}

bool VideoReader::Receive(VideoFrame& frame) {
    for (;;) {
        const int rc = avcodec_receive_frame(s_->codec, s_->frame);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return false;
        if (rc < 0) {
            ++s_->refused_packets;
            return false;
        }
        if (s_->frame->width < 2 || s_->frame->height < 2) {
            throw ToolError("video '" + path_ + "' has a frame of " +
                                std::to_string(s_->frame->width) + "x" +
                                std::to_string(s_->frame->height) +
                                " pixels, too small for a 4:2:0 frame",
                            kExitInput);
        }
        CheckPixels(static_cast<uint64_t>(s_->frame->width),
                    static_cast<uint64_t>(s_->frame->height), "video '" + path_ + "'",
                    kExitInput);
        Present(frame);
        return true;
    }
}

void VideoReader::Present(VideoFrame& frame) {
    AVFrame* f = s_->frame;
    const int format = f->format;
    frame = VideoFrame{};
    frame.number = s_->next_number++;
    const int64_t ts = f->best_effort_timestamp;
    if (ts != AV_NOPTS_VALUE) {
        frame.has_time = true;
        const AVRational base = s_->format->streams[s_->stream]->time_base;
        frame.seconds = static_cast<double>(ts) * av_q2d(base);
    }
    frame.width = f->width & ~1;
    frame.height = f->height & ~1;
    frame.matrix = MatrixOf(f->colorspace);
    frame.range = RangeOf(f->color_range, format);
    if (format == AV_PIX_FMT_NV12 || format == AV_PIX_FMT_NV21) {
        frame.layout = format == AV_PIX_FMT_NV12 ? VideoLayout::kNV12 : VideoLayout::kNV21;
        for (int p = 0; p < 2; ++p) {
            frame.plane[p] = f->data[p];
            frame.stride[p] = f->linesize[p];
        }
        return;
    }
    frame.layout = VideoLayout::kI420;
    AVFrame* src = f;
    if (format != AV_PIX_FMT_YUV420P && format != AV_PIX_FMT_YUVJ420P) {
        const bool full = FullRangeFormat(format) || f->color_range == AVCOL_RANGE_JPEG;
        if (!s_->noted_conversion) {
            s_->noted_conversion = true;
            const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(format));
            Notice("video '" + path_ + "' decodes to " + (name != nullptr ? name : "unknown") +
                   "; each frame is converted to yuv420p with libswscale before the kit reads it");
        }
        if (s_->converted == nullptr || s_->converted->width != f->width ||
            s_->converted->height != f->height) {
            av_frame_free(&s_->converted);
            s_->converted = av_frame_alloc();
            if (s_->converted == nullptr) throw ToolError("out of memory", 1);
            s_->converted->format = AV_PIX_FMT_YUV420P;
            s_->converted->width = f->width;
            s_->converted->height = f->height;
            if (av_frame_get_buffer(s_->converted, 0) < 0) throw ToolError("out of memory", 1);
        }
        s_->sws = sws_getCachedContext(s_->sws, f->width, f->height,
                                       static_cast<AVPixelFormat>(format), f->width, f->height,
                                       AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr,
                                       nullptr);
        if (s_->sws == nullptr) {
            throw ToolError("video '" + path_ + "': libswscale cannot convert its frames",
                            kExitInput);
        }
        // Only the sampling changes: the range the samples are in is kept
        // (libswscale would otherwise squeeze full-range "j" formats into
        // limited range), and the frame keeps its tags.
        const int* coefs = sws_getCoefficients(SWS_CS_DEFAULT);
        sws_setColorspaceDetails(s_->sws, coefs, full ? 1 : 0, coefs, full ? 1 : 0, 0, 1 << 16,
                                 1 << 16);
        sws_scale(s_->sws, f->data, f->linesize, 0, f->height, s_->converted->data,
                  s_->converted->linesize);
        if (full) frame.range = VideoRange::kFull;
        // From R,G,B libswscale makes the samples itself, with BT.601 weights.
        const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
        if (desc != nullptr && (desc->flags & AV_PIX_FMT_FLAG_RGB) != 0) {
            frame.matrix = VideoMatrix::kBT601;
            frame.range = full ? VideoRange::kFull : VideoRange::kLimited;
        }
        src = s_->converted;
    }
    for (int p = 0; p < 3; ++p) {
        frame.plane[p] = src->data[p];
        frame.stride[p] = src->linesize[p];
    }
}

void VideoReader::CheckComplete() {
    const long declared = DeclaredFrames();
    if (s_->read_error != 0) {
        throw ToolError("video '" + path_ + "' ends early after " +
                            std::to_string(s_->next_number) +
                            " frames: reading stopped on an error (" +
                            AvError(s_->read_error) + "); the file is cut short or damaged",
                        kExitInput);
    }
    if (s_->refused_packets > 0) {
        throw ToolError("video '" + path_ + "' is damaged: the decoder refused " +
                            std::to_string(s_->refused_packets) + " packet(s) of " +
                            std::to_string(s_->next_number + s_->refused_packets),
                        kExitInput);
    }
    if (declared > 0 && s_->next_number + s_->empty_packets < declared) {
        throw ToolError("video '" + path_ + "' ends early: " + std::to_string(s_->next_number) +
                            " of the " + std::to_string(declared) +
                            " frames it declares were decoded; the file is cut short",
                        kExitInput);
    }
}

}  // namespace qvntool
