// video_reader.hpp - video files decoded to 4:2:0 planes with FFmpeg's
// libraries (libavformat, libavcodec; libswscale only for decoder formats
// the kit does not take).
//
// Each frame is handed out as the decoder left it: its planes are read in
// place with the decoder's row strides (linesize), together with the
// frame's number, time stamp and colour description, so the kit's one-pass
// converters take it without a copy. yuv420p/yuvj420p give three planes,
// nv12/nv21 two; any other decoder format (4:2:2, 4:4:4, 10-bit, RGB, ...)
// is converted to yuv420p with libswscale, once per frame, keeping its
// range, and a note says so once.
#ifndef QVN_IO_VIDEO_READER_HPP
#define QVN_IO_VIDEO_READER_HPP

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qvntool {

// The colour standard a stream is tagged with. kUnspecified (0) leaves the
// choice to the converter (what players assume for untagged streams); the
// values match the kit's YuvMatrix and YuvRange.
enum class VideoMatrix : uint8_t { kUnspecified = 0, kBT601 = 1, kBT709 = 2 };
enum class VideoRange : uint8_t { kUnspecified = 0, kLimited = 1, kFull = 2 };
enum class VideoLayout : uint8_t { kI420, kNV12, kNV21 };

// One decoded frame. The planes belong to the reader and stay valid until
// the next call to Next().
struct VideoFrame {
    long number = 0;        // 0, 1, 2, ... in the order the decoder presents them
    double seconds = 0.0;   // best-effort time stamp x time base
    bool has_time = false;  // false when the stream gives no time stamp
    // Even sides: a 4:2:0 frame of odd width or height loses its last
    // column or row.
    int width = 0;
    int height = 0;
    VideoLayout layout = VideoLayout::kI420;
    const uint8_t* plane[3] = {nullptr, nullptr, nullptr};  // Y, U, V or Y, UV / Y, VU
    ptrdiff_t stride[3] = {0, 0, 0};
    VideoMatrix matrix = VideoMatrix::kUnspecified;
    VideoRange range = VideoRange::kUnspecified;
};

class VideoReader {
public:
    // Opens the file's best video stream and its decoder (one thread).
    // ToolError(kExitInput) naming the file when it cannot be opened, holds
    // no video stream, has no decoder here, or has frames above
    // --max-pixels.
    explicit VideoReader(const std::string& path);
    ~VideoReader();
    VideoReader(const VideoReader&) = delete;
    VideoReader& operator=(const VideoReader&) = delete;

    // The next frame; false after the last. A packet the decoder refuses
    // is counted and skipped; at the end of the file, ToolError(kExitInput)
    // when any packet was refused, when reading stopped on an error rather
    // than at the end, or when fewer frames came out than the file
    // declares (empty packets, which stand for a repeated frame, count as
    // frames there): a file cut short or damaged never reads as complete.
    bool Next(VideoFrame& frame);

    // Frames the container declares (0 when it does not say).
    long DeclaredFrames() const;
    int Width() const;
    int Height() const;
    // The decoder's name and its pixel format ("mpeg4", "yuv420p").
    std::string Describe() const;
    const std::string& path() const { return path_; }

private:
    struct State;
    std::string path_;
    std::unique_ptr<State> s_;

    bool Receive(VideoFrame& frame);
    void Present(VideoFrame& frame);
    void CheckComplete();
};

}  // namespace qvntool

#endif  // QVN_IO_VIDEO_READER_HPP
