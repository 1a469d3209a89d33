// plane_views.hpp - the decoders' planes as the kit's FrameView, read in
// place by the one-pass converters.
#ifndef QVN_IO_PLANE_VIEWS_HPP
#define QVN_IO_PLANE_VIEWS_HPP

#include "jpeg_planes.hpp"
#include "video_reader.hpp"

#include <qvn_kit/frame_view.hpp>

#include <cstdint>

namespace qvntool {

// A JPEG's planes: three-plane 4:2:0 (Y, Cb, Cr), BT.601 full range as JFIF
// stores them. `ori` is the QVN_ORIENT_FMT flags of the picture.
quvas::kit::FrameView JpegFrameView(const JpegPlanes& planes, uint32_t ori);

// A decoded video frame: three planes for yuv420p, two for nv12/nv21, with
// the stream's colour description (untagged: the converter's default).
quvas::kit::FrameView VideoFrameView(const VideoFrame& frame, uint32_t ori);

}  // namespace qvntool

#endif  // QVN_IO_PLANE_VIEWS_HPP
