// plane_views.cpp - FrameViews over the decoders' planes.
#include "plane_views.hpp"

namespace qvntool {

using quvas::kit::FrameView;
using quvas::kit::YuvMatrix;
using quvas::kit::YuvRange;

FrameView JpegFrameView(const JpegPlanes& planes, uint32_t ori) {
    FrameView view;
    view.pix_fmt = QVN_PIX_FMT_YUV420_A;
    view.ori_fmt = ori;
    view.width = planes.width;
    view.height = planes.height;
    for (int p = 0; p < 3; ++p) view.planes[p] = {planes.plane[p], planes.stride[p]};
    view.matrix = YuvMatrix::kBT601;
    view.range = YuvRange::kFull;
    return view;
}

FrameView VideoFrameView(const VideoFrame& frame, uint32_t ori) {
    FrameView view;
    switch (frame.layout) {
        case VideoLayout::kI420: view.pix_fmt = QVN_PIX_FMT_YUV420_A; break;
        case VideoLayout::kNV12: view.pix_fmt = QVN_PIX_FMT_YUV420SP_C; break;
        case VideoLayout::kNV21: view.pix_fmt = QVN_PIX_FMT_YUV420SP_D; break;
    }
    view.ori_fmt = ori;
    view.width = frame.width;
    view.height = frame.height;
    const int planes = frame.layout == VideoLayout::kI420 ? 3 : 2;
    for (int p = 0; p < planes; ++p) view.planes[p] = {frame.plane[p], frame.stride[p]};
    // The reader's tags carry the kit's values (0 = untagged).
    view.matrix = static_cast<YuvMatrix>(frame.matrix);
    view.range = static_cast<YuvRange>(frame.range);
    // The kit's default for a two-plane view is the camera formats' own
    // weights; a decoder's untagged nv12/nv21 gets what players assume
    // for untagged video instead, as three-plane frames do.
    if (planes == 2) {
        if (view.matrix == YuvMatrix::kDefault) {
            view.matrix = frame.height <= 576 ? YuvMatrix::kBT601 : YuvMatrix::kBT709;
        }
        if (view.range == YuvRange::kDefault) view.range = YuvRange::kLimited;
    }
    return view;
}

}  // namespace qvntool
