// Records, status codes and library services of the flat interface, and the
// validators of quvas::kit.
#include <qvn_kit/qvn_kit.hpp>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "test_support.h"

namespace {

using quvas::kit::IS_Valid_FilePathArr;
using quvas::kit::Is_Valid_QVN_Image_For_CPU;
using quvas::kit::Is_Valid_QVN_ImageArr_For_CPU;
using quvas::kit::Is_Valid_QVN_ObjCountDataArr;

// ---------------------------------------------------------------------------
// Version and log control
// ---------------------------------------------------------------------------

TEST(Services, KitVersionMatchesCore) {
    uint32_t major = 99, minor = 99;
    EXPECT_EQ(QVN_GetKitVersion(&major, &minor), QVN_RESULT_SUCCESS);
    EXPECT_EQ(major, 1u);
    EXPECT_EQ(minor, 0u);
    unsigned core_major = 0, core_minor = 9;
    QVN_Get_Core_Version(core_major, core_minor);
    EXPECT_EQ(core_major, 1u);
    EXPECT_EQ(core_minor, 0u);
}

TEST(Services, LogLevelZeroIsRefusedAndLeavesTheCoreAlone) {
    ASSERT_EQ(QVN_SetLogLevel(4), QVN_RESULT_SUCCESS);
    EXPECT_EQ(QVN_SetLogLevel(0), QVN_RESULT_INVALID_ARG);
    uint32_t level = 0;
    EXPECT_EQ(QVN_GetLogLevel(&level), QVN_RESULT_SUCCESS);
    EXPECT_EQ(level, 4u);
    EXPECT_EQ(QVN_GetLogLevel(nullptr), QVN_RESULT_INVALID_ARG);
    ASSERT_EQ(QVN_SetLogLevel(8), QVN_RESULT_SUCCESS);
}

std::vector<std::string>* g_seen = nullptr;
int CollectLine(const char* text) {
    g_seen->emplace_back(text);
    return 0;
}

TEST(Services, TagAndCallbackAreForwardedToTheCore) {
    std::vector<std::string> seen;
    g_seen = &seen;
    EXPECT_EQ(QVN_SetLogCallback(&CollectLine), QVN_RESULT_SUCCESS);
    EXPECT_EQ(QVN_SetLogTag("detector"), QVN_RESULT_SUCCESS);
    // A refused tag (the core refuses NULL) is reported as -1.
    EXPECT_EQ(QVN_SetLogTag(nullptr), QVN_RESULT_FAIL);
    quvas::utility::Log(16, "%s %d", "answer", 42);
    quvas::utility::Log(4, "below the threshold");
    EXPECT_EQ(QVN_SetLogCallback(nullptr), QVN_RESULT_SUCCESS);
    quvas::utility::Log(16, "to stderr, not to the callback");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0], "answer 42");
    QVN_SetLogTag("quvas");
}

TEST(Services, LogReturnsTheTextWhetherOrNotItIsEmitted) {
    LogCapture capture;
    quvas::utility::SetLogLevel(16);
    const std::string long_text(3000, 'x');
    EXPECT_EQ(quvas::utility::Log(2, "%s|%d", long_text.c_str(), 7), long_text + "|7");
    EXPECT_TRUE(capture.Take().empty());
    EXPECT_EQ(quvas::utility::Log(16, "%s", long_text.c_str()), long_text);
    quvas::utility::Assert(true, "never");
    quvas::utility::Assert(false, "failed %d", 3);
    auto lines = capture.Take();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], long_text);
    EXPECT_EQ(lines[1], "failed 3");
}

TEST(Services, TickClockIsMonotonic) {
    const double f = quvas::utility::getTickFrequency();
    ASSERT_GT(f, 0.0);
    const double t0 = quvas::utility::getTickCount();
    usleep(2000);
    const double t1 = quvas::utility::getTickCount();
    EXPECT_GE((t1 - t0) / f, 0.0019);
    EXPECT_LT((t1 - t0) / f, 1.0);
}

// ---------------------------------------------------------------------------
// Byte sizes
// ---------------------------------------------------------------------------

uint32_t BytesOf(uint32_t fmt, int w, int h, int n, int32_t* status) {
    const QVN_Image img = qvntest::MakeImage(fmt, w, h, n, nullptr);
    uint32_t bytes = 12345;
    *status = QVN_Get_QVNImage_Bytes(&img, &bytes);
    return bytes;
}

// 4:2:0: W*H plus half of it, the half by integer division (3x3 -> 9 + 4);
// packed formats by their pixel size, the two "n channels" formats by
// `channels` bytes or floats; formats without a size fail.
TEST(Bytes, EveryPixelFormat) {
    const struct { uint32_t fmt; int w, h, n; uint32_t bytes; int32_t status; } rows[] = {
        {1, 3, 3, 0, 13, 0},  {2, 3, 3, 0, 13, 0},  {3, 3, 3, 0, 13, 0},  {4, 3, 3, 0, 13, 0},
        {8, 3, 3, 0, 13, 0},  {9, 3, 3, 0, 13, 0},  {2, 1920, 1080, 0, 1920 * 1080 * 3 / 2, 0},
        {9, 1920, 1080, 0, 1920 * 1080 * 3 / 2, 0}, {5, 5, 3, 9, 60, 0},  {6, 5, 3, 9, 60, 0},
        {12, 5, 3, 9, 60, 0}, {7, 5, 3, 9, 15, 0},  {10, 5, 3, 9, 45, 0}, {11, 5, 3, 9, 45, 0},
        {13, 5, 3, 7, 105, 0}, {14, 5, 3, 7, 420, 0}, {0, 4, 4, 1, 0, QVN_RESULT_FAIL},
        {15, 4, 4, 1, 0, QVN_RESULT_FAIL}, {16, 4, 4, 1, 0, QVN_RESULT_FAIL},
        {0xFFFFFFFFu, 4, 4, 1, 0, QVN_RESULT_FAIL},
    };
    for (const auto& r : rows) {
        int32_t st = 99;
        EXPECT_EQ(BytesOf(r.fmt, r.w, r.h, r.n, &st), r.bytes) << r.fmt;
        EXPECT_EQ(st, r.status) << r.fmt;
    }
}

TEST(Bytes, ArithmeticIs32BitWithASignedHalf) {
    int32_t st = 0;
    // 65536 x 65536 wraps to 0 in 32 bits.
    EXPECT_EQ(BytesOf(5, 65536, 65536, 0, &st), 0u);
    // 46341 x 46341 = 2147488281 > INT32_MAX: as a signed value it is
    // negative, so its "half" is negative and the sum wraps below the luma size.
    const uint32_t wh = 46341u * 46341u;
    const uint32_t half = static_cast<uint32_t>(static_cast<int32_t>(wh) / 2);
    EXPECT_EQ(BytesOf(2, 46341, 46341, 0, &st), wh + half);
    EXPECT_LT(BytesOf(2, 46341, 46341, 0, &st), wh);
}

// ---------------------------------------------------------------------------
// Object-count release
// ---------------------------------------------------------------------------

TEST(ObjCount, FreeReleasesOnlyWhenCountIsPositive) {
    QVN_ObjCountDataArr arr{};
    arr.count = 2;
    arr.objRectArr = static_cast<QVN_Rect2D*>(std::malloc(2 * sizeof(QVN_Rect2D)));
    QVN_ObjCountDataArr_Free(&arr);
    EXPECT_EQ(arr.objRectArr, nullptr);
    EXPECT_EQ(arr.count, 2);  // the count is left as it was
    QVN_ObjCountDataArr_Free(&arr);  // nothing to free: harmless

    QVN_Rect2D held{};
    for (int32_t count : {0, -3}) {
        arr.count = count;
        arr.objRectArr = &held;  // not heap memory: freeing it would crash
        QVN_ObjCountDataArr_Free(&arr);
        EXPECT_EQ(arr.objRectArr, &held) << count;
    }
}

// ---------------------------------------------------------------------------
// Validators
// ---------------------------------------------------------------------------

const char* const kImgNull = "Found a invalid QVN_Image*. Error: is NULL.";
const char* const kImgData = "Found a invalid QVN_Image*. Error: QVN_Image.data is NULL.";
const char* const kImgWidth = "Found a invalid QVN_Image*. Error: QVN_Image.width is 0.";
const char* const kImgHeight = "Found a invalid QVN_Image*. Error: QVN_Image.height is 0.";
const char* const kImgFmt =
    "Found a invalid QVN_Image*. Error: QVN_Image.pix_fmt is QVN_PIX_FMT_ERROR or "
    "QVN_PIX_FMT_UNKNOW.";
const char* const kImgInput =
    "Found a invalid QVN_Image*. Error: QVN_Image.pix_fmt is unsupported for input.";

QVN_Image GoodImage(uint8_t* data) { return qvntest::MakeImage(QVN_PIX_FMT_BGRA8888, 2, 2, 4, data); }

void ExpectRejected(const QVN_Image* img, bool forInput, const char* message) {
    LogCapture capture;
    EXPECT_FALSE(Is_Valid_QVN_Image_For_CPU(img, forInput));
    EXPECT_EQ(capture.Take(), std::vector<std::string>{message});
}

TEST(ImageCheck, RejectsInOrderWithOneLineEach) {
    uint8_t pixels[16] = {};
    ExpectRejected(nullptr, false, kImgNull);
    // Each row breaks the field its message names and every field after it.
    const struct { bool data; int w, h; uint32_t fmt; bool input; const char* message; } rows[] = {
        {false, 0, 2, QVN_PIX_FMT_BGRA8888, false, kImgData}, {true, 0, 0, QVN_PIX_FMT_BGRA8888, false, kImgWidth},
        {true, 2, 0, 0, false, kImgHeight}, {true, 2, 2, QVN_PIX_FMT_UNKNOW, true, kImgFmt},
        {true, 2, 2, QVN_PIX_FMT_ERROR, false, kImgFmt}};
    for (const auto& r : rows) {
        QVN_Image img = qvntest::MakeImage(r.fmt, r.w, r.h, 4, r.data ? pixels : nullptr);
        ExpectRejected(&img, r.input, r.message);
    }
}

TEST(ImageCheck, InputFormats) {
    uint8_t pixels[16] = {};
    QVN_Image img = GoodImage(pixels);
    for (uint32_t fmt : {7u, 12u, 13u, 14u}) {
        img.pix_fmt = fmt;
        LogCapture capture;
        EXPECT_TRUE(Is_Valid_QVN_Image_For_CPU(&img, false)) << fmt;
        EXPECT_TRUE(capture.Take().empty());
        ExpectRejected(&img, true, kImgInput);
    }
    for (uint32_t fmt : {1u, 2u, 3u, 4u, 5u, 6u, 8u, 9u, 10u, 11u, 16u, 200u}) {
        img.pix_fmt = fmt;
        LogCapture capture;
        // Negative sizes and formats above 15 are not the check's business.
        img.width = -5;
        EXPECT_TRUE(Is_Valid_QVN_Image_For_CPU(&img, true)) << fmt;
        EXPECT_TRUE(Is_Valid_QVN_Image_For_CPU(&img, false)) << fmt;
        EXPECT_TRUE(capture.Take().empty());
    }
}

// The array checks look at the pointers only, never at the counts.
TEST(ArrayChecks, OnlyThePointersCount) {
    QVN_ImageArr images{};
    QVN_ObjCountDataArr counts{};
    counts.count = 5;
    QVN_Rect2D held{};
    QVN_ObjCountDataArr reused{0, &held};
    const std::string no_images = "Found a invalid QVN_ImageArr*. Error: is NULL.";
    const std::string no_counts = "Found a invalid QVN_ObjCountDataArr*. Error: is NULL.";
    const std::string not_freed =
        "Found a invalid QVN_ObjCountDataArr*. Error: QVN_ObjCountDataArr.objRectArr "
        "is NOT NULL, call QVN_ObjCountDataArr_Free() before resue the object.";
    const struct { std::function<bool()> check; std::string line; } cases[] = {  // no line: accepted
        {[&] { return Is_Valid_QVN_ImageArr_For_CPU(&images, true); }, ""},
        {[&] { return Is_Valid_QVN_ImageArr_For_CPU(&images, false); }, ""},
        {[&] { return Is_Valid_QVN_ImageArr_For_CPU(nullptr, false); }, no_images},
        {[&] { return Is_Valid_QVN_ImageArr_For_CPU(nullptr, true); }, no_images},
        {[&] { return Is_Valid_QVN_ObjCountDataArr(&counts); }, ""},
        {[&] { return Is_Valid_QVN_ObjCountDataArr(nullptr); }, no_counts},
        {[&] { return Is_Valid_QVN_ObjCountDataArr(&reused); }, not_freed},
    };
    for (const auto& c : cases) {
        LogCapture capture;
        EXPECT_EQ(c.check(), c.line.empty()) << c.line;
        EXPECT_EQ(capture.Take(), c.line.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.line});
    }
}

// ---------------------------------------------------------------------------
// Model file lists, on real files made here
// ---------------------------------------------------------------------------

// Run in a scratch directory, so that relative names (".json" alone among
// them) are ours.
class FileList : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getcwd(old_, sizeof old_), nullptr);
        ASSERT_EQ(chdir(dir_.path().c_str()), 0);
    }
    void TearDown() override { ASSERT_EQ(chdir(old_), 0); }

    // An empty name stands for a null path.
    static bool Check(const std::vector<std::string>& paths, std::vector<std::string>* lines) {
        std::vector<const void*> raw;
        for (const auto& p : paths) raw.push_back(p.empty() ? nullptr : p.c_str());
        LogCapture capture;
        const bool ok = IS_Valid_FilePathArr(static_cast<int>(raw.size()), raw.data());
        *lines = capture.Take();
        return ok;
    }

    qvntest::ScratchDir dir_;
    char old_[4096];
};

std::string NameMessage(int count, int i, const std::string& path) {
    return "Expect " + std::to_string(count) + " files, while filepath" + std::to_string(i) +
           " " + path +
           " is not end with following: .qvmod | .qvcfg | .qvmods | .qvmods | .qvcfgs | .json | "
           ".qvnmodel.";
}

// Only the name and the open are checked, never the content; the walk stops
// at the first failure, with one line naming it.
TEST_F(FileList, EveryRuleWithItsLine) {
    {
        LogCapture capture;
        EXPECT_TRUE(IS_Valid_FilePathArr(0, nullptr));
        EXPECT_TRUE(IS_Valid_FilePathArr(-2, nullptr));
        EXPECT_TRUE(capture.Take().empty());
    }
    for (const char* name : {"m.json", "m.qvmod", "m.qvcfg", "m.qvmods", "m.qvcfgs", "m.qvnmodel", "x.JSON"}) {
        std::ofstream(name) << "x";
    }
    // fopen of a directory in "rb" succeeds on Linux: a model name passes.
    ASSERT_EQ(mkdir("e.qvcfgs", 0700), 0);
    const std::string accepted;
    const struct { std::vector<std::string> paths; std::string line; } cases[] = {
        {{"m.json", "m.qvmod", "m.qvcfg", "m.qvmods", "m.qvcfgs", "m.qvnmodel", "e.qvcfgs"}, accepted},
        // The name test is exact and case-sensitive; names shorter than five
        // characters fail it at once.
        {{"x.JSON"}, NameMessage(1, 0, "x.JSON")},
        {{"a.qvmodel"}, NameMessage(1, 0, "a.qvmodel")},
        {{"a.qvm"}, NameMessage(1, 0, "a.qvm")},
        {{"a.json.bak"}, NameMessage(1, 0, "a.json.bak")},
        {{"qvmod"}, NameMessage(1, 0, "qvmod")},
        {{"a."}, NameMessage(1, 0, "a.")},
        {{"a.js"}, NameMessage(1, 0, "a.js")},
        // ".json" alone is a complete (if odd) file name: it reaches the open.
        {{".json"}, "Expect 1 files, while file0 .json open failed."},
        // U+2019, the typographic apostrophe, in UTF-8.
        {{"m.qvmod", ""}, "Expect 2 files, while file1\xE2\x80\x99s path is NULL"},
        {{"m.qvcfg", "c.qvnmodel", "bad.txt", ""}, "Expect 4 files, while file1 c.qvnmodel open failed."},
        {{"bad.txt", "c.qvnmodel"}, NameMessage(2, 0, "bad.txt")},
    };
    for (const auto& c : cases) {
        std::vector<std::string> lines;
        EXPECT_EQ(Check(c.paths, &lines), c.line.empty()) << c.paths[0];
        EXPECT_EQ(lines, c.line.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.line});
    }
    std::ofstream(".json") << "{}";
    std::vector<std::string> lines;
    EXPECT_TRUE(Check({".json"}, &lines));
    EXPECT_TRUE(lines.empty());
}

}  // namespace
