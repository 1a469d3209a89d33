// test_video.cpp - the decoders' planes: JPEG straight to Y, Cb, Cr
// (TurboJPEG) and video files (FFmpeg), checked against libjpeg's own RGB
// decode and the textbook JFIF formula, and `qvn-kit video` and the JPEG
// planes route of `qvn-kit preprocess` run as a user runs them.
#include "common.hpp"
#include "jpeg_planes.hpp"
#include "test_support.h"
#include "tool_support.h"

#include <qvn_kit/frame_view.hpp>
#include <quvas/runtime/tensor.h>

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <turbojpeg.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#ifndef QVN_KIT_TOOL
#error "QVN_KIT_TOOL must name the qvn-kit binary"
#endif

namespace {

using quvas::kit::FrameView;
using quvas::kit::YuvMatrix;
using quvas::kit::YuvRange;

using qvntest::ReadNpy;
using qvntest::RunResult;
using qvntest::RunTool;
using qvntest::Slurp;
using qvntest::WriteText;

const char* const kVtest = "/usr/share/doc/opencv-doc/examples/data/vtest.avi";

std::string ToString(const std::vector<uint8_t>& v) { return std::string(v.begin(), v.end()); }

// A three-plane 4:2:0 view of w x h with luma rows of `ys` bytes, chroma
// rows of `cs`.
FrameView View420(const uint8_t* y, const uint8_t* u, const uint8_t* v, int w, int h, int ys,
                  int cs, uint32_t ori, YuvRange range) {
    FrameView view;
    view.pix_fmt = QVN_PIX_FMT_YUV420_A, view.ori_fmt = ori, view.width = w, view.height = h;
    view.planes[0] = {y, ys}, view.planes[1] = {u, cs}, view.planes[2] = {v, cs};
    view.matrix = YuvMatrix::kBT601, view.range = range;
    return view;
}

// The one-pass converter run here on a view: C x H x W bytes (gray: H x W).
std::string Converted(const FrameView& view, int c, int h, int w, bool bgr,
                      const std::array<int, 4>& crop) {
    quvas::runtime::DeviceCPU device;
    return ToString(qvntest::OnePassViewBytes(device, view, c, h, w, bgr, crop.data(), 0));
}

// The first `count` frames of a video, each plane copied out row by row
// with a plain FFmpeg decode loop written here.
struct Planes420 {
    int w = 0, h = 0;
    std::vector<uint8_t> y, u, v;
};

std::vector<Planes420> DecodeVideo(const std::string& path, int count) {
    std::vector<Planes420> out;
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) return out;
    avformat_find_stream_info(fmt, nullptr);
    const AVCodec* codec = nullptr;
    const int stream = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(ctx, fmt->streams[stream]->codecpar);
    avcodec_open2(ctx, codec, nullptr);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* f = av_frame_alloc();
    auto take = [&] {
        while (static_cast<int>(out.size()) < count && avcodec_receive_frame(ctx, f) == 0) {
            EXPECT_EQ(f->format, AV_PIX_FMT_YUV420P);
            Planes420 p;
            p.w = f->width, p.h = f->height;
            std::vector<uint8_t>* dst[3] = {&p.y, &p.u, &p.v};
            for (int i = 0; i < 3; ++i) {
                const int rows = i ? p.h / 2 : p.h, cols = i ? p.w / 2 : p.w;
                for (int y = 0; y < rows; ++y) {
                    const uint8_t* row = f->data[i] + y * f->linesize[i];
                    dst[i]->insert(dst[i]->end(), row, row + cols);
                }
            }
            out.push_back(std::move(p));
        }
    };
    while (static_cast<int>(out.size()) < count && av_read_frame(fmt, pkt) >= 0) {
        if (pkt->stream_index == stream) avcodec_send_packet(ctx, pkt);
        av_packet_unref(pkt);
        take();
    }
    avcodec_send_packet(ctx, nullptr);
    take();
    av_frame_free(&f);
    av_packet_free(&pkt);
    avcodec_free_context(&ctx);
    avformat_close_input(&fmt);
    return out;
}

// A JPEG of `rgb` (w x h, R,G,B) compressed by TurboJPEG with the given
// chroma sampling; flags add TJFLAG_PROGRESSIVE. Gray sampling stores luma only.
std::vector<uint8_t> CompressJpeg(const std::vector<uint8_t>& rgb, int w, int h, int subsamp,
                                  int flags = 0) {
    tjhandle tj = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    const int rc = tjCompress2(tj, rgb.data(), w, 0, h, TJPF_RGB, &out, &size, subsamp, 92,
                               flags);
    EXPECT_EQ(rc, 0) << tjGetErrorStr2(tj);
    std::vector<uint8_t> bytes(out, out + size);
    tjFree(out);
    tjDestroy(tj);
    return bytes;
}

// Smooth colour with some detail, so chroma placement matters.
std::vector<uint8_t> TestPicture(int w, int h, unsigned seed) {
    std::vector<uint8_t> noise = qvntest::RandomBytes(static_cast<size_t>(w) * h * 3, seed);
    std::vector<uint8_t> rgb(noise.size());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const size_t i = (static_cast<size_t>(y) * w + x) * 3;
            rgb[i] = static_cast<uint8_t>(x * 255 / w / 2 + noise[i] / 4 + 40);
            rgb[i + 1] = static_cast<uint8_t>(y * 255 / h / 2 + noise[i + 1] / 4 + 30);
            rgb[i + 2] = static_cast<uint8_t>(200 - (x + y) * 100 / (w + h) + noise[i + 2] / 8);
        }
    }
    return rgb;
}

// libjpeg's own decode to R,G,B at 1/reduce, with chroma replicated over
// each 2x2 block (no smoothing), so each pixel follows from one Y and one
// Cb, Cr sample.
// With `gray`, libjpeg's gray output of a YCbCr file: its Y samples as they
// are.
std::vector<uint8_t> LibjpegDecode(const std::vector<uint8_t>& bytes, int reduce, bool gray,
                                   int& w, int& h) {
    jpeg_decompress_struct d;
    jpeg_error_mgr e;
    d.err = jpeg_std_error(&e);
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, bytes.data(), static_cast<unsigned long>(bytes.size()));
    jpeg_read_header(&d, TRUE);
    d.out_color_space = gray ? JCS_GRAYSCALE : JCS_RGB;
    d.do_fancy_upsampling = FALSE;
    d.scale_num = 1;
    d.scale_denom = static_cast<unsigned>(reduce);
    jpeg_start_decompress(&d);
    w = static_cast<int>(d.output_width), h = static_cast<int>(d.output_height);
    const int c = gray ? 1 : 3;
    std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * c);
    while (d.output_scanline < d.output_height) {
        JSAMPROW row = rgb.data() + static_cast<size_t>(d.output_scanline) * w * c;
        jpeg_read_scanlines(&d, &row, 1);
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    return rgb;
}

int Clamp255(double v) { return static_cast<int>(std::lround(std::min(255.0, std::max(0.0, v)))); }

// The largest difference between libjpeg's R,G,B and the JFIF formula
// applied to the planes (Y at each pixel, Cb and Cr of its 2x2 block).
int LargestJfifDifference(const qvntool::JpegPlanes& p, const std::vector<uint8_t>& rgb, int w) {
    int worst = 0;
    for (int y = 0; y < p.height; ++y) {
        for (int x = 0; x < p.width; ++x) {
            const double Y = p.plane[0][y * p.stride[0] + x];
            const double cb = p.plane[1][(y / 2) * p.stride[1] + x / 2] - 128.0;
            const double cr = p.plane[2][(y / 2) * p.stride[2] + x / 2] - 128.0;
            const int want[3] = {Clamp255(Y + 1.402 * cr),
                                 Clamp255(Y - 0.344136 * cb - 0.714136 * cr),
                                 Clamp255(Y + 1.772 * cb)};
            for (int c = 0; c < 3; ++c) {
                const int got = rgb[(static_cast<size_t>(y) * w + x) * 3 + c];
                worst = std::max(worst, std::abs(got - want[c]));
            }
        }
    }
    return worst;
}

// 4:2:0 JPEGs, baseline and progressive, odd and even sides, at every DCT
// scale: the planes hold what libjpeg decodes (the JFIF formula over them
// gives libjpeg's R,G,B within its fixed-point rounding), the odd last
// column and row are left out, and the other samplings are told apart.
TEST(JpegPlanes, FourTwoZeroPlanesAreWhatLibjpegDecodes) {
    struct Case {
        int w, h, flags, reduce;
    };
    const Case cases[] = {{64, 48, 0, 1},  {35, 27, 0, 1},  {70, 54, TJFLAG_PROGRESSIVE, 1},
                          {80, 64, 0, 2},  {99, 77, 0, 4},  {130, 96, TJFLAG_PROGRESSIVE, 8}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h) + " /" +
                     std::to_string(c.reduce) + (c.flags != 0 ? " progressive" : ""));
        const std::vector<uint8_t> jpg =
            CompressJpeg(TestPicture(c.w, c.h, 7), c.w, c.h, TJSAMP_420, c.flags);
        const qvntool::JpegHeader header = qvntool::ReadJpegHeader(jpg);
        EXPECT_TRUE(header.planes420);
        EXPECT_EQ(header.sampling, "4:2:0");
        qvntool::JpegPlanes planes;
        ASSERT_TRUE(qvntool::DecodeJpegPlanes("t.jpg", jpg, c.reduce, planes));
        int w = 0, h = 0;
        const std::vector<uint8_t> luma = LibjpegDecode(jpg, c.reduce, true, w, h);
        // Scaled sides round up: ceil(side / reduce).
        EXPECT_EQ(w, (c.w + c.reduce - 1) / c.reduce);
        const int sides[4] = {planes.decoded_width, planes.decoded_height, planes.width, planes.height};
        const int want_sides[4] = {w, h, w - w % 2, h - h % 2};
        EXPECT_TRUE(std::equal(sides, sides + 4, want_sides)) << sides[0] << "x" << sides[1];
        int luma_diff = 0;
        for (int y = 0; y < planes.height; ++y) {
            for (int x = 0; x < planes.width; ++x) {
                luma_diff = std::max(luma_diff, std::abs(planes.plane[0][y * planes.stride[0] + x] -
                                                         luma[static_cast<size_t>(y) * w + x]));
            }
        }
        EXPECT_EQ(luma_diff, 0);
        // Scaled, libjpeg's R,G,B decode enlarges chroma in its inverse DCT
        // rather than repeating samples; at full size both repeat them.
        if (c.reduce == 1) {
            const std::vector<uint8_t> rgb = LibjpegDecode(jpg, 1, false, w, h);
            EXPECT_LE(LargestJfifDifference(planes, rgb, w), 1);
        }
    }

    // Other samplings and gray are not a 4:2:0 frame.
    const std::vector<uint8_t> rgb = TestPicture(32, 32, 3);
    const std::pair<int, const char*> others[] = {
        {TJSAMP_444, "4:4:4"}, {TJSAMP_422, "4:2:2"}, {TJSAMP_GRAY, "gray"}};
    for (const auto& o : others) {
        const std::vector<uint8_t> jpg = CompressJpeg(rgb, 32, 32, o.first);
        const qvntool::JpegHeader header = qvntool::ReadJpegHeader(jpg);
        EXPECT_EQ(header.sampling, o.second);
        EXPECT_FALSE(header.planes420);
        qvntool::JpegPlanes planes;
        EXPECT_FALSE(qvntool::DecodeJpegPlanes("t.jpg", jpg, 1, planes)) << o.second;
    }

    // A file cut short is refused, not filled with gray; so is a picture
    // above --max-pixels, before it is decoded.
    const std::vector<uint8_t> full = CompressJpeg(TestPicture(64, 64, 5), 64, 64, TJSAMP_420);
    const std::vector<uint8_t> cut(full.begin(), full.begin() + full.size() / 2);
    qvntool::JpegPlanes planes;
    try {
        qvntool::DecodeJpegPlanes("cut.jpg", cut, 1, planes);
        ADD_FAILURE() << "a JPEG cut short decoded";
    } catch (const qvntool::ToolError& e) {
        EXPECT_EQ(e.code(), qvntool::kExitInput);
        EXPECT_NE(std::string(e.what()).find("cannot decode JPEG 'cut.jpg'"), std::string::npos);
    }
    const uint64_t saved = qvntool::ToolLimits().max_pixels;
    qvntool::ToolLimits().max_pixels = 64 * 64 - 1;
    EXPECT_THROW(qvntool::DecodeJpegPlanes("big.jpg", full, 8, planes), qvntool::ToolError);
    qvntool::ToolLimits().max_pixels = saved;
    EXPECT_EQ(planes.plane[0], nullptr);
}

// `qvn-kit video` on real footage: --frames A:B is half-open, --every N
// keeps A, A + N, ...; each shard row is the one-pass converter run here on
// the same frame decoded here, as BT.601 limited range (what an untagged
// 576-line stream is); time stamps are frame number x 1/10 s (vtest's time
// base).
TEST(VideoCommand, ShardRowsAreTheConverterOnTheDecodedFrames) {
    qvntest::ScratchDir dir;
    const RunResult r = RunTool(dir, std::string("video ") + kVtest + " '" + dir / "out" +
                                         "' --frames 3:20 --every 4 --tensor 3x96x128 "
                                         "--crop 40,30,600,500 --orient rotate90r --shard 2 --bgr");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("video: 5 frames to 3 shard(s)"), std::string::npos) << r.out;
    EXPECT_EQ(Slurp(dir / "out/index.csv"),
              "shard,row,frame,seconds\n"
              "frames_00000.npy,0,3,0.300000\nframes_00000.npy,1,7,0.700000\n"
              "frames_00001.npy,0,11,1.100000\nframes_00001.npy,1,15,1.500000\n"
              "frames_00002.npy,0,19,1.900000\n");
    const std::vector<Planes420> frames = DecodeVideo(kVtest, 20);
    ASSERT_EQ(frames.size(), 20u);
    const int kept[] = {3, 7, 11, 15, 19};
    for (int i = 0; i < 5; ++i) {
        const Planes420& p = frames[static_cast<size_t>(kept[i])];
        ASSERT_EQ(p.w, 768);
        const FrameView view = View420(p.y.data(), p.u.data(), p.v.data(), p.w, p.h, p.w, p.w / 2,
                                       QVN_ORIENT_FMT_ROTATE_90R, YuvRange::kLimited);
        const std::string want = Converted(view, 3, 96, 128, true, {40, 30, 600, 500});
        char name[32];
        std::snprintf(name, sizeof name, "out/frames_%05d.npy", i / 2);
        const qvntest::Npy shard = ReadNpy(dir / name);
        EXPECT_EQ(shard.shape, i < 4 ? "(2, 3, 96, 128)" : "(1, 3, 96, 128)");
        const size_t bytes = 3 * 96 * 128;
        EXPECT_TRUE(ToString(shard.body).compare((i % 2) * bytes, bytes, want) == 0) << "frame " << kept[i];
    }
}

// A video cut short, a file that is not a video and frame options that
// select nothing: one line, exit 3 or 2, and no directory, shard or index.
TEST(VideoCommand, FailuresLeaveNothing) {
    qvntest::ScratchDir dir;
    WriteText(dir / "cut.avi", Slurp(kVtest).substr(0, 2000000));
    WriteText(dir / "notes.avi", "frame,x,y\n0,1,2\n");
    ASSERT_EQ(::mkdir((dir / "kept").c_str(), 0777), 0);
    struct Case {
        std::string args;
        int code;
        std::string message;
    };
    const Case cases[] = {
        {dir / "cut.avi" + " " + dir / "out", 3, "ends early: 194 of the 795 frames"},
        {dir / "cut.avi" + " " + dir / "kept" + " --shard 8", 3, "the file is cut short"},
        {dir / "notes.avi" + " " + dir / "out", 3, "cannot open video"},
        {dir / "missing.avi" + " " + dir / "out", 3, "No such file"},
        {std::string(kVtest) + " " + dir / "out --frames 5:5", 2, "selects no frame"},
        {std::string(kVtest) + " " + dir / "out --frames -3:", 2, "needs frame numbers"},
        {std::string(kVtest) + " " + dir / "out --every 0", 2, "--every 0"},
        {std::string(kVtest) + " " + dir / "out --frames 900:", 3, "has no frame"},
        {std::string(kVtest) + " " + dir / "out --letterbox 256", 2, "is not in 0..255"},
        {std::string(kVtest) + " " + dir / "out --letterbox-align topleft", 2,
         "--letterbox-align needs --letterbox"},
        {std::string(kVtest) + " " + dir / "out --letterbox 0 --letterbox-align left", 2,
         "is not centre or topleft"},
    };
    for (const Case& c : cases) {
        const RunResult r = RunTool(dir, "video " + c.args);
        EXPECT_EQ(r.code, c.code) << c.args << "\n" << r.err;
        EXPECT_EQ(r.err.rfind("qvn-kit: ", 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << "\n" << r.err;
        struct stat st{};
        EXPECT_NE(::stat((dir / "out").c_str(), &st), 0) << c.args;
        EXPECT_EQ(std::system(("test -z \"$(ls -A '" + dir / "kept" + "')\"").c_str()), 0)
            << c.args;
    }
}

// A JPEG's own planes decoded here with TurboJPEG at 1/reduce, as the
// three-plane BT.601 full-range view JFIF describes, cut to even sides.
struct TjPlanes {
    int w = 0, h = 0;
    std::vector<uint8_t> y, u, v;
    FrameView View(uint32_t ori) const {
        return View420(y.data(), u.data(), v.data(), w & ~1, h & ~1, (w + 1) & ~1, (w + 1) / 2, ori,
                       YuvRange::kFull);
    }
};

TjPlanes TjDecode(const std::vector<uint8_t>& jpg, int reduce) {
    tjhandle tj = tjInitDecompress();
    int w = 0, h = 0, sub = 0, cs = 0;
    tjDecompressHeader3(tj, jpg.data(), jpg.size(), &w, &h, &sub, &cs);
    TjPlanes p;
    p.w = (w + reduce - 1) / reduce, p.h = (h + reduce - 1) / reduce;
    // TurboJPEG writes 4:2:0 luma rounded up to even sides.
    const int cw = (p.w + 1) / 2, ch = (p.h + 1) / 2;
    p.y.resize(static_cast<size_t>(cw) * 2 * ch * 2);
    p.u.resize(static_cast<size_t>(cw) * ch);
    p.v.resize(p.u.size());
    unsigned char* planes[3] = {p.y.data(), p.u.data(), p.v.data()};
    int strides[3] = {cw * 2, cw, cw};
    EXPECT_EQ(tjDecompressToYUVPlanes(tj, jpg.data(), jpg.size(), planes, p.w, strides, p.h, 0), 0);
    tjDestroy(tj);
    return p;
}


// `qvn-kit preprocess --jpeg planes`: a 4:2:0 JPEG, baseline or progressive,
// of odd sides, gives the one-pass converter's bytes on its own planes
// decoded here; --reduce decodes at the largest DCT scale that keeps the
// crop at least as large as the tensor and divides the crop by it; JPEGs of
// other samplings and gray give exactly the bytes of the RGB route.
TEST(JpegPlanesRoute, PreprocessConvertsTheJpegsOwnPlanes) {
    qvntest::ScratchDir dir;
    const std::string base = "preprocess '" + dir / "in.jpg" + "' '" + dir / "o.npy" + "' ";
    auto tensor_of = [&](const std::vector<uint8_t>& jpg, const std::string& args) {
        WriteText(dir / "in.jpg", ToString(jpg));
        const RunResult r = RunTool(dir, base + args);
        EXPECT_EQ(r.code, 0) << args << "\n" << r.err;
        return ToString(ReadNpy(dir / "o.npy").body);
    };
    for (int flags : {0, TJFLAG_PROGRESSIVE}) {
        SCOPED_TRACE(flags != 0 ? "progressive" : "baseline");
        const std::vector<uint8_t> jpg =
            CompressJpeg(TestPicture(171, 131, 11), 171, 131, TJSAMP_420, flags);
        const std::string crop = " --tensor 3x40x48 --crop 9,5,150,120";
        EXPECT_EQ(tensor_of(jpg, "--jpeg planes --orient mirror" + crop),
                  Converted(TjDecode(jpg, 1).View(QVN_ORIENT_FMT_MIRROR), 3, 40, 48, false,
                            {9, 5, 150, 120}));
        // 48 x 2 <= 150 and 40 x 2 <= 120, but not x 4: --reduce 8 decodes
        // at 1/2, with the crop 4,2,75,60.
        const std::string half =
            Converted(TjDecode(jpg, 2).View(0), 3, 40, 48, true, {4, 2, 75, 60});
        EXPECT_EQ(tensor_of(jpg, "--jpeg planes --reduce 2 --bgr" + crop), half);
        EXPECT_EQ(tensor_of(jpg, "--jpeg planes --reduce 8 --bgr" + crop), half);
        // No crop: the whole picture (171 x 131 at 1/4: 43 x 33, kept 42 x 32).
        EXPECT_EQ(tensor_of(jpg, "--jpeg planes --reduce 4 --gray --tensor 1x30x40"),
                  Converted(TjDecode(jpg, 4).View(0), 1, 30, 40, false, {0, 0, 0, 0}));
    }
    // The RGB route stays the default: data sets made so far keep their bytes.
    const std::vector<uint8_t> jpg = CompressJpeg(TestPicture(64, 48, 17), 64, 48, TJSAMP_420);
    const std::string by_default = tensor_of(jpg, "--tensor 3x24x32");
    EXPECT_EQ(by_default, tensor_of(jpg, "--jpeg rgb --tensor 3x24x32"));
    EXPECT_NE(by_default, tensor_of(jpg, "--jpeg planes --tensor 3x24x32"));
    const std::vector<uint8_t> rgb = TestPicture(64, 48, 13);
    for (int sub : {TJSAMP_444, TJSAMP_GRAY}) {
        const std::vector<uint8_t> jpg = CompressJpeg(rgb, 64, 48, sub);
        const std::string today = tensor_of(jpg, "--tensor 3x24x32");
        EXPECT_EQ(today.size(), 3u * 24 * 32);
        EXPECT_EQ(tensor_of(jpg, "--jpeg planes --reduce 2 --tensor 3x24x32"), today) << sub;
    }
}

// A decoder format the converter does not take: 4:2:2 JPEGs read as a
// video (FFmpeg's yuvj422p) goes through libswscale to 4:2:0,
// keeping full range, with one note. Reference: TurboJPEG's 4:2:2 planes
// decoded here, each pair of chroma rows averaged, as BT.601 full range.
TEST(VideoCommand, OtherDecoderFormatsAreResampledOnceWithANote) {
    qvntest::ScratchDir dir;
    const int w = 96, h = 64;
    // Smooth, so that the decoders' inverse DCTs and chroma filters agree.
    std::vector<uint8_t> smooth(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < smooth.size(); ++i) {
        const int x = static_cast<int>(i / 3 % w), yy = static_cast<int>(i / 3 / w);
        const int value = i % 3 == 0 ? 30 + 2 * x : i % 3 == 1 ? 220 - 3 * yy : 60 + x + yy;
        smooth[i] = static_cast<uint8_t>(value);
    }
    const std::vector<uint8_t> jpg = CompressJpeg(smooth, w, h, TJSAMP_422);
    // Three pictures as one video (FFmpeg's numbered-picture input).
    for (int i = 0; i < 3; ++i) {
        WriteText(dir / ("f00" + std::to_string(i) + ".jpg"), ToString(jpg));
    }
    const RunResult r = RunTool(dir, "video '" + dir / "f%03d.jpg" + "' '" + dir / "out" +
                                         "' --tensor 3x" + std::to_string(h) + "x" +
                                         std::to_string(w));
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("video: 3 frames"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "qvn-kit: note: video '" + dir / "f%03d.jpg" +
                         "' decodes to yuvj422p; each frame is converted to yuv420p with "
                         "libswscale before the kit reads it\n");
    tjhandle tj = tjInitDecompress();
    std::vector<uint8_t> y(w * h), u(w / 2 * h), v(w / 2 * h);
    unsigned char* planes[3] = {y.data(), u.data(), v.data()};
    ASSERT_EQ(tjDecompressToYUVPlanes(tj, jpg.data(), jpg.size(), planes, w, nullptr, h, 0), 0);
    tjDestroy(tj);
    std::vector<uint8_t> u420(w / 2 * h / 2), v420(u420.size());
    for (int row = 0; row < h / 2; ++row) {
        for (int x = 0; x < w / 2; ++x) {
            const int a = (2 * row) * (w / 2) + x, b = a + w / 2;
            u420[row * (w / 2) + x] = static_cast<uint8_t>((u[a] + u[b] + 1) / 2);
            v420[row * (w / 2) + x] = static_cast<uint8_t>((v[a] + v[b] + 1) / 2);
        }
    }
    const FrameView view = View420(y.data(), u420.data(), v420.data(), w, h, w, w / 2, 0, YuvRange::kFull);
    const std::string want = Converted(view, 3, h, w, false, {0, 0, 0, 0});
    const std::string got = ToString(ReadNpy(dir / "out/frames_00000.npy").body);
    ASSERT_EQ(got.size(), 3 * want.size());
    int worst = 0;
    long total = 0;
    for (size_t i = 0; i < got.size(); ++i) {
        const int d = std::abs(static_cast<uint8_t>(got[i]) -
                               static_cast<uint8_t>(want[i % want.size()]));
        worst = std::max(worst, d);
        total += d;
    }
    // FFmpeg's own inverse DCT and libswscale's vertical filter against
    // TurboJPEG and a pair average: a few levels at most, about 0.1 on
    // average; squeezing the range to 16..235 would move every byte ~7.
    EXPECT_LE(worst, 3);
    EXPECT_LT(total / static_cast<double>(got.size()), 0.5);
}

}  // namespace