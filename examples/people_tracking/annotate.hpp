// annotate.hpp - what the loop shows: boxes and ids drawn straight on a
// frame's Y, U, V planes, the frames encoded into a clip with FFmpeg's
// libavcodec, and one frame written as a PNG through the kit's converter.
#ifndef QVN_EXAMPLES_PEOPLE_ANNOTATE_HPP
#define QVN_EXAMPLES_PEOPLE_ANNOTATE_HPP

#include "people_loop.hpp"

#include <string>
#include <vector>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct AVStream;

namespace people {

// A three-plane 4:2:0 copy of a decoded frame with the tracks drawn on it:
// a two-pixel frame around each box and its id on a filled tag, in a colour
// of its own per id.
class Annotator {
public:
    const qvntool::VideoFrame& Draw(const qvntool::VideoFrame& frame,
                                    const std::vector<TrackBox>& tracks);
    // The last frame drawn.
    const qvntool::VideoFrame& frame() const { return out_; }

private:
    qvntool::VideoFrame out_;
    std::vector<uint8_t> planes_[3];
};

// Encodes three-plane 4:2:0 frames of a fixed size into a video file whose
// container follows the name (.mp4, .avi, .mkv), with the named libavcodec
// encoder ("mpeg4"; "ffv1" for a lossless clip). qvntool::ToolError when the
// file, the container or the encoder cannot be had.
class ClipWriter {
public:
    ClipWriter(const std::string& path, const std::string& encoder, int width, int height,
               int fps);
    ~ClipWriter();
    ClipWriter(const ClipWriter&) = delete;
    ClipWriter& operator=(const ClipWriter&) = delete;
    void Write(const uint8_t* const planes[3], const ptrdiff_t strides[3]);
    void Write(const qvntool::VideoFrame& frame) { Write(frame.plane, frame.stride); }
    // Flushes the encoder and closes the file; the destructor only releases.
    void Finish();

private:
    void Drain();
    std::string path_;
    AVFormatContext* fmt_ = nullptr;
    AVCodecContext* ctx_ = nullptr;
    AVStream* stream_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    long pts_ = 0;
    bool open_ = false;
};

// The frame as an RGB PNG (the kit's one-pass converter at the frame's own
// size, with the stream's colour description).
void WriteFramePng(const std::string& path, const qvntool::VideoFrame& frame);

}  // namespace people

#endif  // QVN_EXAMPLES_PEOPLE_ANNOTATE_HPP
