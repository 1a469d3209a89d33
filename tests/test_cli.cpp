// test_cli.cpp - runs the built qvn-kit binary on small inputs made here and
// compares its files with the kit called directly (the tool adds no pixel
// logic of its own), with values that follow from the requirements, and
// checks that every bad input ends with one clear line, a non-zero exit
// code and no file left behind.
#include <qvn_kit/qvn_kit.hpp>
#include <quvas/runtime/tensor.h>

#include "common.hpp"
#include "image_io.hpp"
#include "log_capture.hpp"
#include "test_support.h"
#include "tool_support.h"

#include <gtest/gtest.h>
#include <png.h>
#include <jpeglib.h>
#include <zlib.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using qvntest::ReadNpy;
using qvntest::RunResult;
using qvntest::Slurp;
using qvntest::WriteText;

// A refused run: its exit code and the text its one line must contain.
struct Failure {
    std::string args;
    int code;
    std::string message;
};

class Cli : public ::testing::Test {
protected:
    std::string P(const std::string& name) const { return dir_ / name; }
    // "<sub> <in> <out>" with both files in the scratch directory.
    std::string Cmd(const std::string& sub, const std::string& in, const std::string& out) const {
        return sub + " " + P(in) + " " + P(out);
    }

    RunResult Run(const std::string& args) { return qvntest::RunTool(dir_, args, limit_); }

    // Names in the directory, sorted.
    std::vector<std::string> Listing() const {
        std::vector<std::string> names;
        DIR* d = ::opendir(dir_.path().c_str());
        while (dirent* e = ::readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        ::closedir(d);
        std::sort(names.begin(), names.end());
        return names;
    }

    // One short line "qvn-kit: ..." naming the problem, the exit code, and
    // the directory as it was (no output, no temporary).
    void ExpectFailure(const Failure& c, const std::vector<std::string>& inputs) {
        RunResult r = Run(c.args);
        EXPECT_EQ(r.code, c.code) << c.args << "\n" << r.err;
        EXPECT_EQ(r.err.rfind("qvn-kit: ", 0), 0u) << c.args << "\n" << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << c.args << "\n" << r.err;
        EXPECT_LT(r.err.size(), 300u) << c.args;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << "\n" << r.err;
        EXPECT_EQ(Listing(), inputs) << c.args;
    }

    // The tool ran and succeeded.
    ::testing::AssertionResult Ok(const std::string& args) {
        const RunResult r = Run(args);
        if (r.code == 0) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << args << ": exit " << r.code << "\n" << r.err;
    }

    qvntest::ScratchDir dir_;
    std::string limit_;  // shell commands run before the tool, e.g. a ulimit
};

// --- small independent file writers and readers -----------------------------

struct Img {
    int w = 0, h = 0, c = 0;
    std::vector<uint8_t> px;
};

void WritePngFile(const std::string& path, const Img& img) {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(img.w);
    image.height = static_cast<png_uint_32>(img.h);
    image.format = img.c == 1 ? PNG_FORMAT_GRAY : img.c == 3 ? PNG_FORMAT_RGB : PNG_FORMAT_RGBA;
    ASSERT_NE(png_image_write_to_file(&image, path.c_str(), 0, img.px.data(), 0, nullptr), 0);
}

Img ReadPngFile(const std::string& path) {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    Img img;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) return img;
    img.c = PNG_IMAGE_SAMPLE_CHANNELS(image.format);
    image.format = img.c == 1 ? PNG_FORMAT_GRAY : img.c == 3 ? PNG_FORMAT_RGB : PNG_FORMAT_RGBA;
    if (img.c == 2) image.format = PNG_FORMAT_RGBA, img.c = 4;
    img.w = static_cast<int>(image.width);
    img.h = static_cast<int>(image.height);
    img.px.resize(static_cast<size_t>(img.w) * img.h * img.c);
    png_image_finish_read(&image, nullptr, img.px.data(), 0, nullptr);
    return img;
}

Img RandomImg(int w, int h, int c, unsigned seed) {
    return Img{w, h, c, qvntest::RandomBytes(static_cast<size_t>(w) * h * c, seed)};
}

void WriteNpyF32(const std::string& path, const std::vector<size_t>& shape,
                 const std::vector<float>& v) {
    std::string shp = "(";
    for (size_t i = 0; i < shape.size(); ++i) shp += std::to_string(shape[i]) + ", ";
    shp += ")";
    std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': " + shp + ", }";
    while ((10 + dict.size() + 1) % 64 != 0) dict += ' ';
    dict += '\n';
    std::ofstream f(path, std::ios::binary);
    f.write("\x93NUMPY\x01\x00", 8);
    char len[2] = {static_cast<char>(dict.size() & 0xFF), static_cast<char>(dict.size() >> 8)};
    f.write(len, 2);
    f << dict;
    f.write(reinterpret_cast<const char*>(v.data()), static_cast<long>(v.size() * 4));
}

// A baseline JPEG of an R,G,B or gray picture, written with libjpeg.
void WriteJpegFile(const std::string& path, const Img& img) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    jpeg_compress_struct c;
    jpeg_error_mgr e;
    c.err = jpeg_std_error(&e);
    jpeg_create_compress(&c);
    jpeg_stdio_dest(&c, f);
    c.image_width = static_cast<JDIMENSION>(img.w);
    c.image_height = static_cast<JDIMENSION>(img.h);
    c.input_components = img.c;
    c.in_color_space = img.c == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&c);
    jpeg_start_compress(&c, TRUE);
    while (c.next_scanline < c.image_height) {
        JSAMPROW row = const_cast<uint8_t*>(img.px.data()) +
                       static_cast<size_t>(c.next_scanline) * img.w * img.c;
        jpeg_write_scanlines(&c, &row, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    std::fclose(f);
}

std::vector<std::vector<std::string>> CsvCells(const std::string& text) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> cells;
        std::istringstream ls(line);
        std::string c;
        while (std::getline(ls, c, ',')) cells.push_back(c);
        rows.push_back(cells);
    }
    return rows;
}

QVN_Image ImageOf(Img& img, uint32_t pix_fmt) {
    return qvntest::MakeImage(pix_fmt, img.w, img.h, img.c, img.px.data(), 0, {0.1f, 0.2f, 0.7f, 0.9f});
}

// ---------------------------------------------------------------------------

TEST_F(Cli, VersionAndHelp) {
    RunResult v = Run("--version");
    EXPECT_EQ(v.code, 0) << v.err;
    EXPECT_NE(v.out.find("kit 1.0\ncore 1.0\n"), std::string::npos) << v.out;
    for (const char* sub : {"preprocess", "orient", "warp", "mask", "decode", "track", "demo"}) {
        EXPECT_TRUE(Ok(std::string(sub) + " --help")) << sub;
    }
    EXPECT_NE(Run("").code, 0);
}

TEST_F(Cli, OrientMatchesKnownTurnsAndTheLibrary) {
    // 3 x 2 gray picture with rows "abc" / "def": a quarter turn clockwise
    // gives rows "da", "eb", "fc"; 270 gives "cf", "be", "ad"; 180 "fed", "cba".
    Img small{3, 2, 1, {'a', 'b', 'c', 'd', 'e', 'f'}};
    WritePngFile(P("abc.png"), small);
    const std::pair<const char*, const char*> cases[] = {
        {"--rotate 90", "daebfc"}, {"--rotate 270", "cfbead"}, {"--rotate 180", "fedcba"},
        {"--mirror", "cbafed"},    {"--flipv", "defabc"}};
    for (const auto& c : cases) {
        ASSERT_TRUE(Ok(Cmd("orient", "abc.png", "t.png") + " " + c.first));
        Img t = ReadPngFile(P("t.png"));
        EXPECT_EQ(std::string(t.px.begin(), t.px.end()), c.second) << c.first;
    }
    // A colour picture with alpha against the library called directly.
    Img rgba = RandomImg(7, 5, 4, 7);
    WritePngFile(P("rgba.png"), rgba);
    for (int angle : {90, 180, 270}) {
        ASSERT_TRUE(Ok(Cmd("orient", "rgba.png", "o.png") + " --rotate " + std::to_string(angle)));
        Img got = ReadPngFile(P("o.png"));
        Img want{0, 0, 4, std::vector<uint8_t>(rgba.px.size())};
        QVN_Image s = ImageOf(rgba, QVN_PIX_FMT_RGBA8888), d = s;
        d.data = want.px.data();
        ASSERT_EQ(QVN_Clockwise_Rotate_Image_CPU(&s, &d, angle), 0);
        EXPECT_EQ(got.w, d.width);
        EXPECT_EQ(got.h, d.height);
        EXPECT_EQ(got.px, want.px) << angle;
    }
}

// A JPEG of gray rows 30 levels apart, written here with libjpeg: rows of
// one value come back within a few levels, so the flipped picture shows
// which row landed where.
TEST_F(Cli, OrientReadsJpeg) {
    Img src{16, 8, 3, {}};
    for (int i = 0; i < 16 * 8 * 3; ++i) src.px.push_back(static_cast<uint8_t>(20 + 30 * (i / 48)));
    WriteJpegFile(P("p.jpg"), src);
    ASSERT_TRUE(Ok(Cmd("orient", "p.jpg", "f.png") + " --flipv"));
    // Outputs get the mode of a plain create, not the private temporary's.
    struct stat st {};
    ASSERT_EQ(::stat(P("f.png").c_str(), &st), 0);
    mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
    Img got = ReadPngFile(P("f.png"));
    ASSERT_EQ(got.c, 3);
    ASSERT_EQ(got.px.size(), src.px.size());
    for (size_t i = 0; i < got.px.size(); ++i)
        EXPECT_NEAR(got.px[i], 20 + 30 * (7 - static_cast<int>(i / 48)), 4) << i;
}

TEST_F(Cli, WarpMatchesTheLibraryScalarAndVector) {
    Img src = RandomImg(21, 13, 3, 11);
    WritePngFile(P("in.png"), src);
    float m[6] = {0.9f, 0.15f, 1.25f, -0.1f, 1.1f, 0.5f};
    const std::string mtext = "0.9,0.15,1.25,-0.1,1.1,0.5";
    for (bool vec : {false, true}) {
        ASSERT_TRUE(Ok(Cmd("warp", "in.png", "w.png") + " --matrix " + mtext + " --size 17x11 --border 9" +
                       (vec ? " --vector" : "")));
        Img got = ReadPngFile(P("w.png"));
        ASSERT_EQ(got.w, 17);
        ASSERT_EQ(got.h, 11);
        Img want{17, 11, 3, std::vector<uint8_t>(17 * 11 * 3)};
        QVN_Image s = ImageOf(src, QVN_PIX_FMT_RGB888);
        QVN_Image d = ImageOf(want, QVN_PIX_FMT_RGB888);
        if (vec) {
            quvas::kit::AffineInvQvimageBilinearSSE(&s, &d, 0x09090909u, m);
        } else {
            quvas::kit::affine_inv_qvimage_bilinear(&s, &d, 9, m);
        }
        EXPECT_EQ(got.px, want.px) << (vec ? "vector" : "scalar");
    }
}

// The byte rules themselves (rounding in whole blocks, truncation in the
// tail, clamping) are the kit's and tested there; the tool must hand over
// every value, tail included.
TEST_F(Cli, MaskMatchesTheLibrary) {
    // 5 x 7 = 35 values: two whole blocks of 16 and a tail of 3.
    std::vector<float> v(35);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>(i) / 34.f * 1.4f - 0.2f;
    v[0] = v[34] = 0.5f;  // rounded in a block, truncated in the tail
    WriteNpyF32(P("m.npy"), {5, 7}, v);
    for (bool sig : {false, true}) {
        ASSERT_TRUE(Ok(Cmd("mask", "m.npy", "m.png") + (sig ? " --sigmoid" : "")));
        Img got = ReadPngFile(P("m.png"));
        ASSERT_EQ(got.w, 7);
        ASSERT_EQ(got.h, 5);
        std::vector<float> src(48, 0.f);
        std::copy(v.begin(), v.end(), src.begin());
        std::vector<unsigned char> want(48);
        if (sig) {
            quvas::kit::sigmoid_float01toUchar0255SSE(src.data(), want.data(), 35);
        } else {
            quvas::kit::float01toUchar0255SSE(src.data(), want.data(), 35);
        }
        EXPECT_EQ(got.px, std::vector<uint8_t>(want.begin(), want.begin() + 35));
    }
}

TEST_F(Cli, DecodeMatchesTheLibrary) {
    const int c = 2, h = 5, w = 8;
    std::vector<float> heat(static_cast<size_t>(c) * h * w, 0.f);
    heat[(0 * h + 1) * w + 6] = 30.f;  // channel 0: column 6, row 1
    for (int i = 0; i < h * w; ++i) heat[static_cast<size_t>(h * w + i)] = 0.01f * (i % 7);
    WriteNpyF32(P("h.npy"), {c, h, w}, heat);
    for (const char* mode : {"", " --confidence", " --vector"}) {
        RunResult r = Run("decode " + P("h.npy") + " --beta 1.5" + mode);
        ASSERT_EQ(r.code, 0) << mode << r.err;
        quvas::kit::SoftArgMax d(w, h, c, 1.5f);
        if (std::string(mode) == " --vector") {
            d.Decode_WithConfidenceNoSqrt_CHW_F32_SSE(heat.data(), c, h, w);
        } else if (std::string(mode) == " --confidence") {
            d.Decode_WithConfidenceNoSqrt_CHW_F32(heat.data(), c, h, w);
        } else {
            d.Decode_CHW_F32(heat.data(), c, h, w);
        }
        const auto rows = CsvCells(r.out);
        ASSERT_EQ(rows.size(), 3u) << r.out;
        EXPECT_EQ(rows[0], (std::vector<std::string>{"channel", "x", "y", "confidence"}));
        for (int i = 0; i < c; ++i) {
            ASSERT_EQ(rows[static_cast<size_t>(i) + 1].size(), 4u);
            EXPECT_EQ(std::strtof(rows[i + 1][1].c_str(), nullptr), d.x_out[i]) << mode;
            EXPECT_EQ(std::strtof(rows[i + 1][2].c_str(), nullptr), d.y_out[i]) << mode;
            EXPECT_EQ(std::strtof(rows[i + 1][3].c_str(), nullptr), d.confidence[i]) << mode;
        }
        // A peak far above the rest lands on its pixel: column 6 of 8 is
        // 2*6/7 - 1, row 1 of 5 is 2*1/4 - 1.
        EXPECT_NEAR(std::strtof(rows[1][1].c_str(), nullptr), 12.f / 7.f - 1.f, 1e-3) << mode;
        EXPECT_NEAR(std::strtof(rows[1][2].c_str(), nullptr), -0.5f, 1e-3) << mode;
    }
}

TEST_F(Cli, TrackKalmanMatchesTheLibraryAndFillsGaps) {
    WriteText(P("in.csv"),
              "frame,x,y,w,h\n0,0.10,0.20,0.30,0.40\n1,0.12,0.21,0.30,0.40\n"
              "2,0.15,0.22,0.31,0.41\n5,0.22,0.25,0.30,0.40\n6,0.25,0.26,0.30,0.40\n");
    ASSERT_TRUE(Ok(Cmd("track", "in.csv", "out.csv") + " --kalman --frame 320x240 --frequency 25 "
                   "--process-noise 0.5 --measurement-noise 2 --plot " + P("plot.svg")));
    auto rows = CsvCells(Slurp(P("out.csv")));
    ASSERT_EQ(rows.size(), 8u);  // header + frames 0..6
    auto params = std::make_shared<quvas::kit::QVTBoxTrackerParams>();
    *params = quvas::kit::QVTBoxTrackerParams{};
    params->frequency = 25.f;
    params->process_noise = 0.5f;
    params->measurement_noise = 2.f;
    quvas::kit::QVTBoxKalmanTracker t(320, 240, params);
    const float in[5][5] = {{0, .10f, .20f, .30f, .40f}, {1, .12f, .21f, .30f, .40f},
                            {2, .15f, .22f, .31f, .41f}, {5, .22f, .25f, .30f, .40f},
                            {6, .25f, .26f, .30f, .40f}};
    t.init(in[0][1], in[0][2], in[0][3], in[0][4]);
    size_t row = 1;
    long last = -1;
    for (const auto& m : in) {
        for (long f = last + 1; f < static_cast<long>(m[0]); ++f, ++row) {
            float b[4];
            t.predict(&b[0], &b[1], &b[2], &b[3]);
            EXPECT_EQ(rows[row][0], std::to_string(f));
            EXPECT_EQ(rows[row][5], "predicted");
            for (int k = 0; k < 4; ++k) EXPECT_EQ(std::strtof(rows[row][k + 1].c_str(), nullptr), b[k]);
        }
        float b[4] = {m[1], m[2], m[3], m[4]};
        t.track(&b[0], &b[1], &b[2], &b[3]);
        EXPECT_EQ(rows[row][5], "measured");
        for (int k = 0; k < 4; ++k) EXPECT_EQ(std::strtof(rows[row][k + 1].c_str(), nullptr), b[k]);
        last = static_cast<long>(m[0]);
        ++row;
    }
    std::string svg = Slurp(P("plot.svg"));
    EXPECT_EQ(svg.rfind("<?xml", 0), 0u);
    EXPECT_NE(svg.find("</svg>"), std::string::npos);
}

// The filter's arithmetic is held to the published algorithm in
// test_trackers.cpp; here the tool's route to it: a row a frame, the first
// output the first measurement itself.
TEST_F(Cli, TrackOneEuroStartsAtTheMeasurement) {
    WriteText(P("in.csv"), "frame,x,y,w,h\n0,0.21,0.32,0.23,0.24\n1,0.22,0.31,0.24,0.21\n");
    ASSERT_TRUE(Ok(Cmd("track", "in.csv", "out.csv") +
                   " --one-euro --min-cutoff 1 --beta 0.5 --frame 640x480"));
    const auto rows = CsvCells(Slurp(P("out.csv")));
    ASSERT_EQ(rows.size(), 3u);
    const float first[4] = {0.21f, 0.32f, 0.23f, 0.24f};
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(std::strtof(rows[1][k + 1].c_str(), nullptr), first[k], 1e-6) << k;
}

// --- preprocess -------------------------------------------------------------

std::vector<uint8_t> ConvertDirect(std::vector<uint8_t>& frame, uint32_t pix_fmt, int w, int h,
                        uint32_t ori, bool bgr, bool gray, int th, int tw,
                        const int crop[4], uint8_t pad) {
    using namespace quvas::runtime;
    DeviceCPU dev;
    TensorPtr t = gray ? qvntest::FilledTensor(dev, {th, tw, 1}, layout::kHWC, 0)
                       : qvntest::FilledTensor(dev, {3, th, tw}, layout::kCHW, 0);
    const bool four = pix_fmt == QVN_PIX_FMT_BGRA8888 || pix_fmt == QVN_PIX_FMT_RGBA8888;
    const QVN_Image img = qvntest::MakeImage(pix_fmt, w, h, four ? 4 : 1, frame.data(), ori);
    if (gray) {
        quvas::kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
            &img, t, crop[0], crop[1], crop[2], crop[3], pad);
    } else {
        quvas::kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
            &img, t, bgr, crop[0], crop[1], crop[2], crop[3], pad);
    }
    return std::vector<uint8_t>(t->data(), t->data() + t->byte_size());
}

TEST_F(Cli, PreprocessRawFramesMatchTheLibrary) {
    const int w = 24, h = 16;
    const size_t fb = static_cast<size_t>(w) * h * 3 / 2;
    std::vector<uint8_t> all = qvntest::RandomBytes(fb * 3, 21);
    WriteText(P("f.nv21"), std::string(all.begin(), all.end()));
    const std::string opts = " --crop 2,1,12,10 --pad 7 --tensor 3x10x8";
    ASSERT_TRUE(Ok(Cmd("preprocess", "f.nv21", "t.npy") +
                   " --size 24x16 --format nv21 --orient 'rotate90r|mirror'" + opts));
    const int crop[4] = {2, 1, 12, 10};
    for (int i = 0; i < 3; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "t_%05d.npy", i);
        qvntest::Npy got = ReadNpy(P(name));
        EXPECT_EQ(got.descr, "|u1");
        EXPECT_EQ(got.shape, "(3, 10, 8)");
        std::vector<uint8_t> frame(all.begin() + static_cast<long>(fb) * i,
                                   all.begin() + static_cast<long>(fb) * (i + 1));
        EXPECT_EQ(got.body, ConvertDirect(frame, QVN_PIX_FMT_YUV420SP_D, w, h, 17, false, false,
                                          10, 8, crop, 7)) << "frame " << i;
    }
    // Names and numbers for the orientation are the same thing.
    ASSERT_TRUE(Ok(Cmd("preprocess", "f.nv21", "n.npy") + " --size 24x16 --orient 17" + opts));
    EXPECT_EQ(ReadNpy(P("n_00001.npy")).body, ReadNpy(P("t_00001.npy")).body);

    // Gray, whole frame.
    std::vector<uint8_t> frame(all.begin(), all.begin() + static_cast<long>(fb));
    WriteText(P("one.nv12"), std::string(frame.begin(), frame.end()));
    ASSERT_TRUE(Ok(Cmd("preprocess", "one.nv12", "g.npy") +
                   " --size 24x16 --format nv12 --gray --tensor 1x9x13"));
    const int none[4] = {0, 0, 0, 0};
    qvntest::Npy g = ReadNpy(P("g.npy"));
    EXPECT_EQ(g.shape, "(9, 13, 1)");
    EXPECT_EQ(g.body,
              ConvertDirect(frame, QVN_PIX_FMT_YUV420SP_C, w, h, 0, false, true, 9, 13, none, 0));
}

TEST_F(Cli, PreprocessPicturesMatchTheLibrary) {
    // RGBA frames are the picture's bytes as they are: exact comparison.
    Img pic = RandomImg(20, 14, 4, 99);
    WritePngFile(P("p.png"), pic);
    // Gray with a pending quarter turn and a tensor that is not square, and a
    // half turn in either plane order: the tool writes what the library
    // wrote, every byte of it.
    const struct {
        const char* out;
        std::string opts;
        uint32_t ori;
        bool bgr, gray;
        int th, tw, crop[4];
    } runs[] = {
        {"g.npy", " --orient rotate90r --crop 3,2,12,9 --gray --tensor 1x10x6", 1, false, true, 10, 6,
         {3, 2, 12, 9}},
        {"a.npy", " --orient rotate180 --tensor 3x12x16", 4, false, false, 12, 16, {}},
        {"b.npy", " --orient rotate180 --tensor 3x12x16 --bgr", 4, true, false, 12, 16, {}},
    };
    for (const auto& k : runs) {
        ASSERT_TRUE(Ok("preprocess " + P("p.png") + " " + P(k.out) + " --format rgba" + k.opts));
        EXPECT_EQ(ReadNpy(P(k.out)).body, ConvertDirect(pic.px, QVN_PIX_FMT_RGBA8888, 20, 14, k.ori, k.bgr,
                                                          k.gray, k.th, k.tw, k.crop, 0))
            << k.opts;
    }
    // The PNG of a tensor shows the same picture whatever the plane order.
    const std::vector<uint8_t> a = ReadNpy(P("a.npy")).body;
    ASSERT_EQ(a.size(), 3u * 12 * 16);
    ASSERT_TRUE(Ok(Cmd("preprocess", "p.png", "a.png") + " --format rgba" + runs[1].opts));
    ASSERT_TRUE(Ok(Cmd("preprocess", "p.png", "b.png") + " --format rgba" + runs[2].opts));
    Img pa = ReadPngFile(P("a.png")), pb = ReadPngFile(P("b.png"));
    EXPECT_EQ(pa.w, 16);
    EXPECT_EQ(pa.h, 12);
    EXPECT_EQ(pa.px, pb.px);
    for (size_t i = 0; i < 192; ++i) {  // planes put back together
        for (size_t c = 0; c < 3; ++c) EXPECT_EQ(pa.px[3 * i + c], a[192 * c + i]) << i << " " << c;
    }
    // A flat colour through PNG -> NV21 -> RGB tensor. The tool encodes with
    // BT.601 full range: Y = .299 R + .587 G + .114 B, U - 128 = (B - Y) / 1.772,
    // V - 128 = (R - Y) / 1.402; the kit decodes nv21 with its weights in
    // 64ths: R = Y + 90/64 (V-128), G = Y - 22/64 (U-128) - 46/64 (V-128),
    // B = Y + 133/64 (U-128). Up to the rounding of both steps.
    for (const std::array<double, 3>& rgb :
         {std::array<double, 3>{200, 120, 40}, std::array<double, 3>{90, 90, 90},
          std::array<double, 3>{30, 160, 220}}) {
        Img flat{16, 16, 3, {}};
        for (int i = 0; i < 256; ++i)
            for (double v : rgb) flat.px.push_back(static_cast<uint8_t>(v));
        WritePngFile(P("flat.png"), flat);
        ASSERT_TRUE(Ok(Cmd("preprocess", "flat.png", "flat.npy") + " --format nv21 --tensor 3x8x8"));
        std::vector<uint8_t> f = ReadNpy(P("flat.npy")).body;
        ASSERT_EQ(f.size(), 192u);
        double y = 0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2];
        double u = (rgb[2] - y) / 1.772, v = (rgb[0] - y) / 1.402;
        double want[3] = {y + 90.0 / 64 * v, y - 22.0 / 64 * u - 46.0 / 64 * v,
                          y + 133.0 / 64 * u};
        for (int c = 0; c < 3; ++c) {
            double expect = std::min(255.0, std::max(0.0, want[c]));
            for (size_t i = 0; i < 64; ++i) EXPECT_NEAR(f[64 * c + i], expect, 3.0) << c;
        }
    }
}

TEST_F(Cli, DemoWritesEveryStep) {
    ASSERT_TRUE(Ok("demo " + P("demo")));
    // Widths and heights that follow from the step (0: any non-empty picture).
    const std::tuple<const char*, int, int> pictures[] = {
        {"01_chart_upright.png", 320, 0},      {"02_frame_nv21_rotate90r.png", 240, 320},
        {"03_tensor_3x256x256.png", 256, 256}, {"04_heatmaps.png", 0, 0},
        {"05_results_upright.png", 0, 0},      {"06_results_on_frame.png", 0, 0}};
    for (const auto& [name, w, h] : pictures) {
        const Img img = ReadPngFile(P(std::string("demo/") + name));
        EXPECT_TRUE(w ? img.w == w : img.w > 0) << name << " " << img.w;
        EXPECT_TRUE(h ? img.h == h : img.h > 0) << name << " " << img.h;
    }
    EXPECT_NE(Slurp(P("demo/report.txt")).find("Is_Valid_QVN_Image_For_CPU: valid"), std::string::npos);
    EXPECT_EQ(CsvCells(Slurp(P("demo/05_track.csv"))).size(), 41u);
}

// --- hostile input ----------------------------------------------------------

std::string Be32(uint32_t v) {
    return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 8), static_cast<char>(v)};
}

// One PNG chunk: length, type, data and the CRC of type and data.
std::string PngChunk(const std::string& type, const std::string& data) {
    const std::string body = type + data;
    const uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(body.data()),
                            static_cast<uInt>(body.size()));
    return Be32(static_cast<uint32_t>(data.size())) + body + Be32(static_cast<uint32_t>(crc));
}

// A PNG of w x h pixels of bit depth `depth` and colour type `type` whose
// first `data_rows` rows (0: all) hold `rows`, the unfiltered sample bytes,
// with `extra` chunks (PLTE) before the data: written byte by byte,
// independently of libpng.
std::string PngOf(uint32_t w, uint32_t h, uint8_t depth, uint8_t type, const std::string& rows,
                  const std::string& extra = "", uint32_t data_rows = 0) {
    const uint32_t n = data_rows != 0 ? data_rows : h;
    std::string filtered;
    for (size_t y = 0; y < n; ++y) filtered += '\0' + rows.substr(y * (rows.size() / n), rows.size() / n);
    std::vector<Bytef> z(compressBound(static_cast<uLong>(filtered.size())));
    uLongf zn = static_cast<uLongf>(z.size());
    compress(z.data(), &zn, reinterpret_cast<const Bytef*>(filtered.data()),
             static_cast<uLong>(filtered.size()));
    const std::string ihdr = Be32(w) + Be32(h) + std::string{static_cast<char>(depth),
                                                             static_cast<char>(type), 0, 0, 0};
    return std::string("\x89PNG\r\n\x1a\n", 8) + PngChunk("IHDR", ihdr) + extra +
           PngChunk("IDAT", std::string(reinterpret_cast<char*>(z.data()), zn)) +
           PngChunk("IEND", "");
}

// Text chunks never change a pixel: the reader leaves them out, and the
// picture decodes as it does without them.
TEST_F(Cli, TextChunksLeaveThePictureAlone) {
    WritePngFile(P("plain.png"), RandomImg(20, 14, 3, 5));
    const std::string png = Slurp(P("plain.png"));
    // After the signature and IHDR (8 + 25 bytes), and again before IEND.
    const std::string text = PngChunk("tEXt", std::string("Comment\0made by a camera", 24));
    std::string with = png.substr(0, 33) + text + png.substr(33);
    with.insert(with.size() - 12, PngChunk("iTXt", std::string("Title\0\0\0\0\0x", 11)));
    WriteText(P("text.png"), with);
    ASSERT_TRUE(Ok(Cmd("orient", "plain.png", "a.png") + " --mirror"));
    ASSERT_TRUE(Ok(Cmd("orient", "text.png", "b.png") + " --mirror"));
    EXPECT_EQ(ReadPngFile(P("a.png")).px, ReadPngFile(P("b.png")).px);
}

// 16-bit samples are read as their high byte, as libpng's png_set_strip_16
// gives: no gamma curve, no rounding, alpha not premultiplied; gray+alpha
// becomes R,G,B,A. Palettes and 1-bit gray still read as before.
TEST(PictureReader, SixteenBitSamplesGiveTheirHighByte) {
    auto decode = [](const std::string& png) {
        return qvntool::DecodePicture("t.png", std::vector<uint8_t>(png.begin(), png.end()));
    };
    std::mt19937 rng(16);
    // Colour type, channels in the file, channels read (gray+alpha: R,G,B,A).
    for (const std::array<int, 3>& k : {std::array<int, 3>{0, 1, 1}, {2, 3, 3}, {6, 4, 4}, {4, 2, 4}}) {
        // The values of the report, then low bytes that rounding or a scale
        // to 255 would carry into the high byte; then random samples.
        std::vector<uint16_t> v = {0x0000, 0x2000, 0x4000, 0x8000, 0xC000, 0xFFFF,
                                   0x00FF, 0x20FF, 0x7FFF, 0x80FF, 0xC0FF, 0xFF00};
        v.resize(static_cast<size_t>(6 * 2 * k[1]));
        std::generate(v.begin() + 12, v.end(), [&] { return static_cast<uint16_t>(rng()); });
        std::string rows;
        std::vector<uint8_t> want;
        for (size_t i = 0; i < v.size(); ++i) {
            rows += {static_cast<char>(v[i] >> 8), static_cast<char>(v[i] & 0xFF)};
            want.push_back(static_cast<uint8_t>(v[i] >> 8));
            if (k[0] == 4 && i % 2 == 0) want.insert(want.end(), 2, want.back());
        }
        const qvntool::Picture pic = decode(PngOf(6, 2, 16, static_cast<uint8_t>(k[0]), rows));
        EXPECT_EQ(pic.channels, k[2]) << k[0];
        EXPECT_EQ(pic.pixels, want) << k[0];
    }
    EXPECT_EQ(decode(PngOf(6, 1, 16, 0, std::string("\0\0\x20\0\x40\0\x80\0\xC0\0\xFF\xFF", 12))).pixels,
              (std::vector<uint8_t>{0, 32, 64, 128, 192, 255}));
    // Four palette entries at 2 bits a pixel (indices 0 1 2 3 0 / 3 2 1 0 1),
    // and 1-bit gray.
    const std::string plte("\x0A\x14\x1E\x28\x32\x3C\xC8\x64\x00\xFF\xFE\xFD", 12);
    std::string want_pal;
    for (int i : {0, 1, 2, 3, 0, 3, 2, 1, 0, 1}) want_pal += plte.substr(static_cast<size_t>(i) * 3, 3);
    const qvntool::Picture pal = decode(PngOf(5, 2, 2, 3, std::string("\x1B\x00\xE4\x40", 4), PngChunk("PLTE", plte)));
    EXPECT_EQ(std::string(pal.pixels.begin(), pal.pixels.end()), want_pal);
    EXPECT_EQ(decode(PngOf(10, 1, 1, 0, "\xA5\x80")).pixels,
              (std::vector<uint8_t>{255, 0, 255, 0, 0, 255, 0, 255, 255, 0}));
}

// Every bad input, and every reproducer of a crash, a bomb, a silent wrong
// answer or undefined behaviour, ends with its exit code, one line naming
// the problem, and no file left behind.
TEST_F(Cli, HostileInputFailsCleanly) {
    WritePngFile(P("in.png"), RandomImg(64, 48, 3, 7));
    WriteText(P("junk.png"), "this is not a picture");
    WriteText(P("cut.png"), Slurp(P("in.png")).substr(0, 60));
    WriteText(P("raw.bin"), std::string(100, 'x'));
    WriteText(P("bad.csv"), "frame,x,y,w,h\n0,0.1,0.1,0.2,0.2\n1,0.1,zero,0.2,0.2\n");
    WriteText(P("back.csv"), "0,0.1,0.1,0.2,0.2\n0,0.1,0.1,0.2,0.2\n");
    WriteNpyF32(P("i.npy"), {2, 3}, {0, 1, 2, 3, 4, 5});
    WriteText(P("bad.npy"), "\x93NUMPY\x01\x00\x10\x00{'descr': '<i8'}");
    WriteText(P("f"), std::string(262144, '\0'));
    WriteText(P("f2"), std::string(196608, '\0'));
    WriteText(P("bomb.png"), PngOf(32768, 32768, 8, 2, std::string(3, '\0'), "", 1));
    // Found by the picture fuzzer: 92 bytes whose text chunk declares 1.2 GB.
    WriteText(P("chunk.png"), std::string(
        "\x89\x50\x4e\x47\x0d\x0a\x1a\x0a\x00\x00\x00\x0d\x49\x48\x44\x52\x00\x00\x00\x05\x00\x00\x00\x03\x08\x04\x00\x00\x00\xf1\x3f\x0d\x73\x49\x50\x4e\x47\x7a\x54\x58\x74\x0d\x0a\x1a\x0a\x00\x00\x00\x0d\x49\x48\x44\x52\x00\x00\x00\x05\x00\x00\x00\x03\x08\x04\x00\x00\x00\xf1\x3f\x0d\x73\x49\x45\x4e\x44\x00\x2c\x00\x00\x2a\x49\x44\x45\x4e\x44\x00\x00\x00\x2a\x49\x44\x41\x54", 92));
    // And 42 bytes whose last chunk, cut short of its CRC, declares 2 GB.
    WriteText(P("tail.png"), std::string(
        "\x89PNG\r\n\x1a\n\x00\x00\x00\x0dIHDR\x00\x00\x00\x05\x00\x00\x00\x03\x08\x04\x00\x00\x00\xf1\x3f\x0d\x73\x7a\x00\x00\x2azTXtx", 42));
    WriteJpegFile(P("small.jpg"), RandomImg(8, 8, 3, 3));
    std::string jpg = Slurp(P("small.jpg"));
    size_t sof = jpg.find("\xFF\xC0");
    ASSERT_NE(sof, std::string::npos);
    jpg.replace(sof + 5, 4, "\x4E\x20\x4E\x20");  // height and width 20000
    WriteText(P("bomb.jpg"), jpg);
    WriteJpegFile(P("full.jpg"), RandomImg(64, 48, 3, 8));
    std::string full = Slurp(P("full.jpg"));
    WriteText(P("cut.jpg"), full.substr(0, full.size() / 2));
    WriteText(P("gap.csv"), "0,.1,.1,.2,.2\n9223372036854775807,.1,.1,.2,.2\n");
    WriteText(P("ok.csv"), "0,.1,.1,.2,.2\n3,.1,.1,.2,.2\n");
    WriteText(P("long.csv"), "0,.1,.1,.2,.2\n1," + std::string(1 << 20, '7') + "x,.1,.2,.2\n");
    // 3 GiB (sparse) behind a PNG signature: longer than any picture of
    // 2^26 pixels can be (8 bytes a pixel at most, plus framing), refused
    // before a byte of it is held.
    WriteText(P("huge.png"), "\x89PNG\r\n\x1a\n");
    ASSERT_EQ(::truncate(P("huge.png").c_str(), 3L << 30), 0);
    std::vector<float> heat(64, 0.f);
    heat[9] = 100.f;  // exp(100) overflows a float
    WriteNpyF32(P("heat.npy"), {1, 8, 8}, heat);
    const std::vector<std::string> inputs = Listing();

    const std::string pre = Cmd("preprocess", "in.png", "o.npy");
    const Failure cases[] = {
        // Missing, malformed and mistyped inputs and options.
        {Cmd("orient", "missing.png", "o.png") + " --rotate 90", 3, "cannot open"},
        {Cmd("orient", "junk.png", "o.png") + " --rotate 90", 3, "neither a PNG nor a JPEG"},
        {Cmd("orient", "cut.png", "o.png") + " --rotate 90", 3, "cannot decode PNG"},
        {Cmd("orient", "in.png", "o.png") + " --rotate 45", 2, "not 90, 180 or 270"},
        {Cmd("orient", "in.png", "o.png") + " --mirror --flipv", 2, "exactly one"},
        {Cmd("warp", "in.png", "o.png") + " --matrix 1,0,0,0,1 --size 4x4", 2, "malformed matrix"},
        {Cmd("warp", "in.png", "o.png") + " --matrix 1,0,0,0,1,0 --size 4by4", 2, "malformed size"},
        {Cmd("preprocess", "in.png", "o.png") + " --format yuyv", 2, "unknown frame format 'yuyv'"},
        {Cmd("preprocess", "in.png", "o.png") + " --orient sideways", 2, "unknown orientation 'sideways'"},
        {Cmd("preprocess", "raw.bin", "o.png") + " --size 8x6", 3, "not a whole number"},
        {Cmd("preprocess", "in.png", "o.png") + " --tensor 1x8x8", 2, "cannot hold the output"},
        {Cmd("preprocess", "in.png", "o.png") + " --crop 1,2,3", 2, "malformed crop"},
        {Cmd("track", "bad.csv", "o.csv") + " --kalman", 3, "line 3"},
        {Cmd("track", "back.csv", "o.csv") + " --kalman", 3, "does not follow"},
        {Cmd("track", "missing.csv", "o.csv") + " --kalman", 3, "cannot open"},
        {Cmd("track", "bad.csv", "o.csv"), 2, "exactly one of --kalman"},
        {Cmd("mask", "bad.npy", "o.png"), 3, "malformed NumPy file"},
        {Cmd("mask", "i.npy", "o.png") + " --bogus", 2, "bogus"},
        {"decode " + P("missing.npy"), 3, "cannot open"},
        {"decode " + P("i.npy") + " --vector -o " + P("o.csv"), 2, "multiple of 4"},
        // Frame sizes that wrap the kit's 32-bit byte count.
        {Cmd("preprocess", "f", "o.npy") + " --size 65537x65536 --format bgra", 2, "above the limit"},
        {Cmd("preprocess", "f2", "o.npy") + " --size 65536x65538 --format nv12", 2, "above the limit"},
        {"--max-pixels 2147483647 " + Cmd("preprocess", "f", "o.npy") + " --size 32768x65535 --format bgra", 2,
         "beyond the kit's 32-bit byte count"},
        {Cmd("preprocess", "f", "o.npy") + " --size 63x64 --format nv12", 2, "even width and height"},
        // Bombs: declared sizes, crops, tensors, warps.
        {Cmd("orient", "bomb.png", "o.png") + " --mirror", 3, "above the limit"},
        {Cmd("orient", "bomb.jpg", "o.png") + " --mirror", 3, "above the limit"},
        {Cmd("orient", "chunk.png", "o.png") + " --mirror", 3, "runs past the end"},
        {Cmd("orient", "tail.png", "o.png") + " --mirror", 3, "runs past the end"},
        {pre + " --crop 0,0,30000,30000", 2, "crop of 30000x30000 pixels is above the limit"},
        {pre + " --tensor 3x20000x20000", 2, "tensor of 20000x20000"},
        {Cmd("warp", "in.png", "o.png") + " --matrix 1,0,0,0,1,0 --size 30000x30000", 2,
         "warp output of 30000x30000"},
        {"--max-pixels 1000 " + Cmd("orient", "in.png", "o.png") + " --mirror", 3, "above the limit of 1000"},
        {pre + " --crop 0,0,65536,65536 --max-pixels 2147483647", 2, "above the limit"},
        {pre + " --max-pixels 4294967296", 2, "not in range"},
        // A crop whose chroma would be empty.
        {pre + " --format nv12 --crop 63,47,1,1", 2, "at least 2x2"},
        // Damaged JPEG, endless and huge inputs.
        {Cmd("orient", "cut.jpg", "o.png") + " --mirror", 3, "cannot decode JPEG"},
        {"decode /dev/zero --max-input-mb 1", 3, "longer than the input limit of 1 MiB"},
        {"preprocess /dev/zero " + P("o.npy"), 3, "'/dev/zero' is neither a PNG nor a JPEG"},
        {"orient /dev/zero " + P("o.png") + " --mirror", 3, "neither a PNG nor a JPEG"},
        {Cmd("orient", "huge.png", "o.png") + " --mirror", 3,
         "longer than any picture of at most 67108864 pixels can be (577 MiB"},
        {"track /dev/zero " + P("o.csv") + " --kalman", 3,
         "'/dev/zero' line 1: longer than 16777216 bytes"},
        {Cmd("track", "gap.csv", "o.csv") + " --kalman", 3, "gap of more than"},
        {Cmd("track", "long.csv", "o.csv") + " --kalman", 3, "7777..."},
        // Options and results that are not numbers.
        {"decode " + P("heat.npy") + " --beta nan", 2, "--beta must be a finite number"},
        {"decode " + P("heat.npy") + " -o " + P("o.csv"), 3, "overflows the exponential"},
        {Cmd("track", "ok.csv", "o.csv") + " --kalman --process-noise nan", 2,
         "--process-noise must be a finite number"},
        {Cmd("track", "ok.csv", "o.csv") + " --one-euro --realtime --frequency 1e-30",
         2, "--frequency must be between"},
    };
    // Each refusal comes before the input takes the memory: all of them
    // within a 1 GiB address space (sanitizers reserve more than that).
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    limit_ = "ulimit -v 1048576; ";
#endif
    for (const Failure& c : cases) ExpectFailure(c, inputs);
    limit_.clear();
    // An output that cannot be written.
    RunResult r = Run(Cmd("orient", "in.png", "no/such/dir/o.png") + " --mirror");
    EXPECT_EQ(r.code, 4) << r.err;
    EXPECT_NE(r.err.find("cannot create"), std::string::npos) << r.err;

    // The plot of a track ending at the largest frame number has no
    // overflow (the sanitizer build checks) and spans the two frames.
    WriteText(P("end.csv"), "9223372036854775806,.1,.1,.2,.2\n9223372036854775807,.3,.1,.2,.2\n");
    ASSERT_TRUE(Ok(Cmd("track", "end.csv", "t.csv") + " --kalman --plot " + P("t.svg")));
    std::string svg = Slurp(P("t.svg"));
    EXPECT_NE(svg.find("frames 9223372036854775806-9223372036854775807"), std::string::npos);
    // Large finite coordinates are written in full, not cut.
    WriteText(P("far.csv"), "0,1e30,.1,.2,.2\n");
    ASSERT_TRUE(Ok(Cmd("track", "far.csv", "f.csv") + " --kalman --plot " + P("f.svg")));
    // The box centre is drawn at 30 + 360 x in the left panel.
    std::string far = Slurp(P("f.svg"));
    size_t m = far.find("<path d=\"M");
    ASSERT_NE(m, std::string::npos);
    char* end = nullptr;
    double cx = std::strtod(far.c_str() + m + 10, &end);
    EXPECT_EQ(std::string(end, 1), " ");
    EXPECT_NEAR(cx / (30.0 + 360.0 * static_cast<double>(1e30f)), 1.0, 1e-12);
}

// A refusal the library only logs leaves the tensor unfilled: the tool either
// writes what the library computes with its log silent, or fails with the
// library's line and writes nothing.
TEST_F(Cli, LibraryRefusalsAreFailures) {
    Img pic = RandomImg(64, 48, 4, 12);
    WritePngFile(P("p.png"), pic);
    const std::vector<std::string> inputs = Listing();
    const int none[4] = {0, 0, 0, 0};
    std::vector<std::string> logged;
    std::vector<uint8_t> want;
    {
        LogCapture log;
        want = ConvertDirect(pic.px, QVN_PIX_FMT_RGBA8888, 64, 48, QVN_ORIENT_FMT_ROTATE_90R,
                             false, true, 100, 90, none, 0);
        logged = log.Take();
    }
    RunResult r = Run(Cmd("preprocess", "p.png", "o.npy") +
                      " --gray --format rgba --orient rotate90r --tensor 1x100x90");
    if (logged.empty()) {
        ASSERT_EQ(r.code, 0) << r.err;
        EXPECT_EQ(ReadNpy(P("o.npy")).body, want);
    } else {
        EXPECT_EQ(r.code, 5) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(logged[0].substr(0, 60)), std::string::npos) << r.err;
        EXPECT_EQ(Listing(), inputs);
    }
}

// The route itself: a line the library logs becomes a failure with exit 5
// and the library's text, once; a quiet library passes.
TEST(ToolLogRoute, LoggedLinesBecomeOneFailure) {
    unsigned level = 0;
    quvas::utility::GetLogLevel(&level);
    qvntool::InstallLogRoute();
    EXPECT_NO_THROW(qvntool::CheckLibrary("quiet"));
    EXPECT_FALSE(quvas::kit::Is_Valid_QVN_Image_For_CPU(nullptr, true));
    EXPECT_FALSE(quvas::kit::Is_Valid_QVN_Image_For_CPU(nullptr, false));
    try {
        qvntool::CheckLibrary("the library rejected the frame");
        ADD_FAILURE() << "no failure";
    } catch (const qvntool::ToolError& e) {
        EXPECT_EQ(e.code(), 5);
        EXPECT_STREQ(e.what(), "the library rejected the frame: Found a invalid QVN_Image*. "
                               "Error: is NULL.");
    }
    EXPECT_NO_THROW(qvntool::CheckLibrary("reported once"));
    QVN_SetLogCallback(nullptr);
    quvas::utility::SetLogLevel(level);
}

// An existing output keeps what it is: a FIFO is written into, a link's
// target replaced, a private file stays private; a directory is refused; and
// a run that fails at a later frame leaves none of its earlier frames.
TEST_F(Cli, OutputsKeepWhatTheyAre) {
    WriteText(P("in.csv"), "0,.1,.1,.2,.2\n2,.2,.1,.2,.2\n");
    ASSERT_TRUE(Ok(Cmd("track", "in.csv", "want.csv") + " --kalman"));
    const std::string want = Slurp(P("want.csv"));
    ASSERT_EQ(CsvCells(want).size(), 4u);

    ASSERT_EQ(::mkfifo(P("pipe").c_str(), 0600), 0);
    std::string got;
    std::thread reader([&] { got = Slurp(P("pipe")); });
    RunResult r = Run(Cmd("track", "in.csv", "pipe") + " --kalman");
    // Unblock the reader should the tool never have opened the pipe.
    int fd = ::open(P("pipe").c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0) ::close(fd);
    reader.join();
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(got, want);
    struct stat st {};
    ASSERT_EQ(::lstat(P("pipe").c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));

    // A character device is written in place, never replaced.
    r = Run("track " + P("in.csv") + " /dev/null --kalman");
    EXPECT_EQ(r.code, 0) << r.err;
    ASSERT_EQ(::stat("/dev/null", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));

    WriteText(P("private.csv"), "old");
    ASSERT_EQ(::chmod(P("private.csv").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("private.csv", P("link.csv").c_str()), 0);
    ASSERT_TRUE(Ok(Cmd("track", "in.csv", "link.csv") + " --kalman"));
    ASSERT_EQ(::lstat(P("link.csv").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(Slurp(P("private.csv")), want);
    ASSERT_EQ(::stat(P("private.csv").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    ASSERT_EQ(::mkdir(P("dir.csv").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(P("t_00002.npy").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("nowhere", P("dangling.csv").c_str()), 0);
    std::vector<uint8_t> frames(24 * 16 * 3 / 2 * 3, 128);
    WriteText(P("f.nv12"), std::string(frames.begin(), frames.end()));
    const std::vector<std::string> before = Listing();
    for (const std::string& args :
         {Cmd("track", "in.csv", "dir.csv") + " --kalman",
          Cmd("track", "in.csv", "dangling.csv") + " --kalman",
          Cmd("preprocess", "f.nv12", "t.npy") + " --size 24x16 --format nv12"}) {
        r = Run(args);
        EXPECT_EQ(r.code, 4) << args << "\n" << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(Listing(), before) << args;  // t_00000.npy and t_00001.npy neither
    }
}

// A picture with odd sides becomes a 4:2:0 frame by repeating its last column
// and row: the same tensor as from the picture padded by hand, with a note.
TEST_F(Cli, OddSizedPicturesArePaddedForTwoPlaneFrames) {
    const int w = 721, h = 477;
    Img odd = RandomImg(w, h, 3, 31);
    Img even{w + 1, h + 1, 3, {}};
    for (int y = 0; y <= h; ++y) {
        for (int x = 0; x <= w; ++x) {
            const uint8_t* px = &odd.px[(static_cast<size_t>(std::min(y, h - 1)) * w +
                                         std::min(x, w - 1)) * 3];
            even.px.insert(even.px.end(), px, px + 3);
        }
    }
    WritePngFile(P("odd.png"), odd);
    WritePngFile(P("even.png"), even);
    for (const char* opts : {" --format nv21 --tensor 3x120x160 --orient rotate90r",
                             " --format nv12 --gray --tensor 1x64x64 --crop 600,400,121,77"}) {
        RunResult a = Run(Cmd("preprocess", "odd.png", "a.npy") + opts);
        ASSERT_EQ(a.code, 0) << a.err;
        EXPECT_EQ(a.err, std::string("qvn-kit: note: 721x477 picture padded to 722x478 by "
                                     "repeating its last column and row (") +
                             (std::string(opts).find("nv21") != std::string::npos ? "nv21"
                                                                                     : "nv12") +
                             " needs even sides)\n");
        RunResult b = Run(Cmd("preprocess", "even.png", "b.npy") + opts);
        ASSERT_EQ(b.code, 0) << b.err;
        EXPECT_EQ(b.err, "");
        EXPECT_EQ(ReadNpy(P("a.npy")).body, ReadNpy(P("b.npy")).body) << opts;
    }
}

}  // namespace
