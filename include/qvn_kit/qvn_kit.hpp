// qvn_kit.hpp - the quvas::kit interface of libqvn_kit.
//
// Free functions and small classes that detectors call around a network:
// input validation, box trackers, score and heatmap decoding, crop geometry,
// affine warps, frame-to-tensor conversion and float-to-byte masks.
//
// Eigen stays out of this header: the filter templates that the trackers own
// are only forward-declared here and defined in <qvn_kit/qv_filters.hpp>.
#ifndef QVN_KIT_HPP
#define QVN_KIT_HPP

#include <qvn_kit/qvn_kit.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace Eigen {
template <typename Scalar, int Rows, int Cols, int Options, int MaxRows, int MaxCols>
class Matrix;
}  // namespace Eigen

namespace quvas {
namespace runtime {
class Tensor;
struct Context;
}  // namespace runtime
namespace kernel {
class ImageProcessFallback;
}  // namespace kernel

namespace kit {

// ---------------------------------------------------------------------------
// Validation of caller input. Each rejection logs one line at level 16.
// ---------------------------------------------------------------------------

QVN_API bool Is_Valid_QVN_Image_For_CPU(const QVN_Image* img, bool forInput);
QVN_API bool Is_Valid_QVN_ImageArr_For_CPU(const QVN_ImageArr* arr, bool forInput);
QVN_API bool Is_Valid_QVN_ObjCountDataArr(const QVN_ObjCountDataArr* arr);
QVN_API bool IS_Valid_FilePathArr(int count, const void** paths);

// ---------------------------------------------------------------------------
// Per-record result transforms (the QVN_*_Result_* wrappers call these).
// ---------------------------------------------------------------------------

QVN_API void FaceFrameDataArr_clockwise_rotate_90_result(QVN_FaceFrameDataArr* arr);
QVN_API void FaceFrameDataArr_clockwise_rotate_180_result(QVN_FaceFrameDataArr* arr);
QVN_API void FaceFrameDataArr_clockwise_rotate_270_result(QVN_FaceFrameDataArr* arr);
QVN_API void FaceFrameDataArr_flip_h_result(QVN_FaceFrameDataArr* arr);
QVN_API void FaceFrameDataArr_flip_v_result(QVN_FaceFrameDataArr* arr);

QVN_API void ObjCountDataArr_clockwise_rotate_90_result(QVN_ObjCountDataArr* arr);
QVN_API void ObjCountDataArr_clockwise_rotate_180_result(QVN_ObjCountDataArr* arr);
QVN_API void ObjCountDataArr_clockwise_rotate_270_result(QVN_ObjCountDataArr* arr);
QVN_API void ObjCountDataArr_flip_h_result(QVN_ObjCountDataArr* arr);
QVN_API void ObjCountDataArr_flip_v_result(QVN_ObjCountDataArr* arr);

QVN_API void QVN_BodyFrameDataArr_clockwise_rotate_90_result(QVN_BodyFrameDataArr* arr);
QVN_API void QVN_BodyFrameDataArr_clockwise_rotate_180_result(QVN_BodyFrameDataArr* arr);
QVN_API void QVN_BodyFrameDataArr_clockwise_rotate_270_result(QVN_BodyFrameDataArr* arr);
QVN_API void QVN_BodyFrameDataArr_flip_h_result(QVN_BodyFrameDataArr* arr);
QVN_API void QVN_BodyFrameDataArr_flip_v_result(QVN_BodyFrameDataArr* arr);

// ---------------------------------------------------------------------------
// Box records and trackers.
// ---------------------------------------------------------------------------

struct QVN_API QVBox {
    QVBox();
    QVBox(float x, float y, float w, float h, float score);
    // The kit never reads a QVBox; box and score is the usual convention.
    float x, y, w, h, score;
};

struct QVN_API QVTBox : QVBox {
    QVTBox();
    QVTBox(float x, float y, float w, float h, float score, int32_t id);
    int32_t id;  // track identifier
};

// Tracker parameters, shared by reference count between a caller and its
// trackers; read only in init(). Positions 0-3 are reserved.
struct QVTBoxTrackerParams {
    float reserved_0;
    float reserved_1;
    float reserved_2;
    float reserved_3;
    float frequency;          // frame rate in Hz
    float min_cutoff;         // One-Euro: minimum cutoff frequency (Hz)
    float beta;               // One-Euro: speed coefficient
    float d_cutoff;           // One-Euro: cutoff of the derivative smoother (Hz)
    float process_noise;      // Kalman: scale of the process-noise covariance
    float measurement_noise;  // Kalman: scale of the measurement-noise covariance
};

// The dynamic-size double matrix (Eigen::MatrixXd) the filters work on.
using FilterMatrix = Eigen::Matrix<double, -1, -1, 0, -1, -1>;

template <typename M>
class KalmanFilter;
template <typename M, int N>
class OneEuroFilter;

// A box is four normalised floats x, y, w, h; trackers work on its pixel
// corners in a frame of `width` x `height`.
class QVN_API QVTBoxTracker {
public:
    QVTBoxTracker(const int& width, const int& height,
                  const std::shared_ptr<QVTBoxTrackerParams>& params);
    virtual ~QVTBoxTracker();
    virtual void init(const float& x, const float& y, const float& w, const float& h) = 0;
    virtual void track(float* x, float* y, float* w, float* h) = 0;
    virtual void predict(float* x, float* y, float* w, float* h) = 0;

    int32_t width;
    int32_t height;
    std::shared_ptr<QVTBoxTrackerParams> params;
};

class QVN_API QVTBoxKalmanTracker : public QVTBoxTracker {
public:
    QVTBoxKalmanTracker(const int& width, const int& height,
                        const std::shared_ptr<QVTBoxTrackerParams>& params);
    ~QVTBoxKalmanTracker() override;
    void init(const float& x, const float& y, const float& w, const float& h) override;
    void track(float* x, float* y, float* w, float* h) override;
    void predict(float* x, float* y, float* w, float* h) override;

    std::shared_ptr<KalmanFilter<FilterMatrix>> filter;
};

class QVN_API QVTBoxOneEuroTracker : public QVTBoxTracker {
public:
    QVTBoxOneEuroTracker(const int& width, const int& height,
                         const std::shared_ptr<QVTBoxTrackerParams>& params);
    ~QVTBoxOneEuroTracker() override;
    void init(const float& x, const float& y, const float& w, const float& h) override;
    void track(float* x, float* y, float* w, float* h) override;
    void predict(float* x, float* y, float* w, float* h) override;

    std::shared_ptr<OneEuroFilter<FilterMatrix, 4>> filter;
};

// ---------------------------------------------------------------------------
// Small dense matrices held as rows (instantiated for float).
// ---------------------------------------------------------------------------

template <typename T>
T Determinant(const std::vector<std::vector<T>>& mat, int n);
template <typename T>
int Adjoint(const std::vector<std::vector<T>>& mat, std::vector<std::vector<T>>& out, int n);
template <typename T>
int Inverse(const std::vector<std::vector<T>>& mat, std::vector<std::vector<T>>& out, int n);

extern template QVN_API float Determinant<float>(const std::vector<std::vector<float>>&, int);
extern template QVN_API int Adjoint<float>(const std::vector<std::vector<float>>&,
                                           std::vector<std::vector<float>>&, int);
extern template QVN_API int Inverse<float>(const std::vector<std::vector<float>>&,
                                           std::vector<std::vector<float>>&, int);

// ---------------------------------------------------------------------------
// Softmax and box helpers.
// ---------------------------------------------------------------------------

QVN_API void softmax_float(const float* input, float* output, int count);
QVN_API QVN_Rect2D extend_bbox(QVN_Rect2D rect, float scale);
QVN_API QVN_Rect2D adjust_bbox(QVN_Rect2D rect, float top, float bottom, float left,
                               float right, float scale_x, float scale_y);

// ---------------------------------------------------------------------------
// SoftArgMax heatmap decoder: one object per heatmap shape, reused per frame.
// Results are read from x_out, y_out, confidence (and weight_sum).
// ---------------------------------------------------------------------------

class QVN_API SoftArgMax {
public:
    SoftArgMax(const int& width, const int& height, const int& channels, const float& beta);
    ~SoftArgMax();
    SoftArgMax(const SoftArgMax&) = delete;
    SoftArgMax& operator=(const SoftArgMax&) = delete;

    void Decode_CHW_F32(const float* data, const int& channels, const int& height,
                        const int& width);
    void Decode_WithConfidenceNoSqrt_CHW_F32(const float* data, const int& channels,
                                             const int& height, const int& width);
    void Decode_WithConfidence_CHW_F32_SSE(const float* data, const int& channels,
                                           const int& height, const int& width);
    void Decode_WithConfidenceNoSqrt_CHW_F32_SSE(const float* data, const int& channels,
                                                 const int& height, const int& width);

    int32_t width;
    int32_t height;
    int32_t channels;
    int32_t heatmap_bytes;
    float beta;
    float* exp_buffer;
    float* weight_sum;
    float* x_out;
    float* y_out;
    float* confidence;
    float* grid_x;
    float* grid_y;
    float* line_x;
    float* line_y;
};

// ---------------------------------------------------------------------------
// Affine matrices and crop geometry.
// ---------------------------------------------------------------------------

QVN_API void getAffineTransform(const unsigned& ori, const int& width, const int& height,
                                std::vector<float>& m);
// Empties `m` (its storage kept) and writes the six coefficients into that
// storage: reserve at least six floats and read them through m.data().
QVN_API void getAffineTransformInv(const unsigned& ori, const int& width, const int& height,
                                   std::vector<float>& m);
QVN_API void Cropbox_Rectify(const QVN_Image* img, const bool& normalized, float& x0,
                             float& y0, float& x1, float& y1);
QVN_API void Cropbox_Rectify(QVN_ORIENT_FMT ori, float& x0, float& y0, float& x1, float& y1);
QVN_API int rectify_cropbox(const QVN_Image* img, int& x0, int& y0, int& x1, int& y1, int& w,
                            int& h);
QVN_API void crop_for_image(const QVN_Image* src, QVN_Image& dst, int x0, int y0, int x1,
                            int y1, int w, int h);
QVN_API void cal_crop_resize_inv_param(int x, int y, int crop_w, int crop_h, int dst_w,
                                       int dst_h, float* out);
QVN_API void cal_crop_resize_inv_float_param(float x, float y, float crop_w, float crop_h,
                                             float dst_w, float dst_h, float* out);

// ---------------------------------------------------------------------------
// Inverse-affine bilinear sampling (scalar) and planar-to-interleaved.
// ---------------------------------------------------------------------------

QVN_API void affine_inv_image_bilinear_c1(const unsigned char* src, int src_w, int src_h,
                                          unsigned char* dst, int dst_w, int dst_h,
                                          unsigned char border, float* M);
QVN_API void affine_inv_image_bilinear_c2(const unsigned char* src, int src_w, int src_h,
                                          unsigned char* dst, int dst_w, int dst_h,
                                          unsigned char border, float* M);
QVN_API void affine_inv_image_bilinear_c3(const unsigned char* src, int src_w, int src_h,
                                          unsigned char* dst, int dst_w, int dst_h,
                                          unsigned char border, float* M);
QVN_API void affine_inv_image_bilinear_c4(const unsigned char* src, int src_w, int src_h,
                                          unsigned char* dst, int dst_w, int dst_h,
                                          unsigned char border, float* M);
QVN_API void affine_inv_qvimage_bilinear(const QVN_Image* src, QVN_Image* dst,
                                         unsigned char border, float* M);
QVN_API int post_getRGB_HWC_from_RGB_CHW(QVN_Image* src, QVN_Image* dst);
QVN_API int post_getRGBA_HWC_from_RGBA_CHW(QVN_Image* src, QVN_Image* dst);

// ---------------------------------------------------------------------------
// Vectorised fixed-point affine warps (AVX2 + FMA).
// ---------------------------------------------------------------------------

QVN_API void warpaffine_linear_SSE_C1(int srcHeight, int srcWidth, int srcStride, int channels,
                                      int dstHeight, int dstWidth, int dstStride,
                                      unsigned char* dst, const unsigned char* src,
                                      const float* M, unsigned int border);
QVN_API void warpaffine_linear_SSE_C2(int srcHeight, int srcWidth, int srcStride, int channels,
                                      int dstHeight, int dstWidth, int dstStride,
                                      unsigned char* dst, const unsigned char* src,
                                      const float* M, unsigned int border);
QVN_API void warpaffine_linear_SSE_C3(int srcHeight, int srcWidth, int srcStride, int channels,
                                      int dstHeight, int dstWidth, int dstStride,
                                      unsigned char* dst, const unsigned char* src,
                                      const float* M, unsigned int border);
QVN_API void warpaffine_linear_SSE_C4(int srcHeight, int srcWidth, int srcStride, int channels,
                                      int dstHeight, int dstWidth, int dstStride,
                                      unsigned char* dst, const unsigned char* src,
                                      const float* M, unsigned int border);
QVN_API void AffineInvQvimageBilinearSSE(const QVN_Image* src, QVN_Image* dst,
                                         unsigned int border, float* M);

// ---------------------------------------------------------------------------
// Float maps to byte masks. Both buffers need room for n rounded up to a
// multiple of 16: whole 16-value blocks are read and written.
// ---------------------------------------------------------------------------

QVN_API void float01toUchar0255SSE(const float* src, unsigned char* dst, int n);
QVN_API void sigmoid_float01toUchar0255SSE(const float* src, unsigned char* dst, int n);

// ---------------------------------------------------------------------------
// Frame-to-tensor conversion through the core's kernels.
// ---------------------------------------------------------------------------

using TensorPtr = std::shared_ptr<quvas::runtime::Tensor>;

QVN_API void QV_BinlinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr);
QVN_API void QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value);
QVN_API void QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const int& crop_x, const int& crop_y,
    const int& crop_w, const int& crop_h, const unsigned char& pad_value);
// One-pass twins of the two crop converters above: the same arguments, the
// same checks and log lines, exactly the same output bytes, but no
// intermediate tensors. The crop is read in place (padded rows are built
// only where it reaches outside the frame), only the source rows the resize
// needs are read, and the tensor is written once; output-sized scratch stays
// with the calling thread, so later frames of the same size allocate
// nothing. An o_tensor the step-by-step path could not fill completely (not
// u8, not {3, H, W} CHW / {H, W, 1} HWC, no storage) is refused with one
// level-16 line and left untouched; sizes the step-by-step path cannot make
// a tensor of throw the same exception. Safe to call from several threads.
QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value);
QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const int& crop_x, const int& crop_y,
    const int& crop_w, const int& crop_h, const unsigned char& pad_value);
// Exported placeholders: they return at once and leave o_tensor untouched.
QVN_API void QV_Crop_NearestResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value);
QVN_API void QV_Crop_Resize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value,
    const char* method);

// ---------------------------------------------------------------------------
// Tensor processing through the core's image-process operations.
// ---------------------------------------------------------------------------

QVN_API void ConvertColorProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                    quvas::kernel::ImageProcessFallback* proc,
                                    std::shared_ptr<quvas::runtime::Context> ctx);
QVN_API void ConvertColorProcessSSEToBGRTensor(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                               quvas::kernel::ImageProcessFallback* proc,
                                               std::shared_ptr<quvas::runtime::Context> ctx);
QVN_API void TransformMatrixProcessSSE(TensorPtr& in, TensorPtr& out, QVN_ORIENT_FMT flags,
                                       quvas::kernel::ImageProcessFallback* proc,
                                       std::shared_ptr<quvas::runtime::Context> ctx);
QVN_API void ResizeProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                              quvas::kernel::ImageProcessFallback* proc,
                              std::shared_ptr<quvas::runtime::Context> ctx);
QVN_API void CropResizeProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                  quvas::kernel::ImageProcessFallback* proc,
                                  std::shared_ptr<quvas::runtime::Context> ctx, float a, float b,
                                  float c, float d);

}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_HPP
