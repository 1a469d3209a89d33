// cv_support.h - OpenCV helpers the image tests share: a crop with padding
// made of OpenCV ROI copies, and the largest byte difference of two pictures.
#ifndef QVN_TESTS_CV_SUPPORT_H
#define QVN_TESTS_CV_SUPPORT_H

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace qvntest {

// The w x h window at (x, y) of src; what lies outside src is `pad`.
inline cv::Mat CropPad(const cv::Mat& src, int x, int y, int w, int h, uint8_t pad) {
    cv::Mat out(h, w, src.type());  // u8 of any channel count
    std::memset(out.data, pad, out.total() * out.elemSize());
    const cv::Rect inside = cv::Rect(x, y, w, h) & cv::Rect(0, 0, src.cols, src.rows);
    if (inside.area() > 0) {
        src(inside).copyTo(out(cv::Rect(inside.x - x, inside.y - y, inside.width, inside.height)));
    }
    return out;
}

// Largest byte difference of two continuous Mats of the same size and type.
inline int MaxDiff(const cv::Mat& a, const cv::Mat& b) {
    EXPECT_EQ(a.size(), b.size());
    EXPECT_EQ(a.type(), b.type());
    int worst = 0;
    const size_t n = std::min(a.total() * a.elemSize(), b.total() * b.elemSize());
    for (size_t i = 0; i < n; ++i) worst = std::max(worst, std::abs(a.data[i] - b.data[i]));
    return worst;
}

}  // namespace qvntest

#endif  // QVN_TESTS_CV_SUPPORT_H
