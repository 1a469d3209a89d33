// image_io.cpp - PNG and JPEG reading and PNG writing.
#include "image_io.hpp"

#include "atomic_output.hpp"
#include "error.hpp"
#include "file_read.hpp"
#include "limits.hpp"
#include "parse.hpp"

#include <jpeglib.h>
#include <png.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace qvntool {
namespace {

struct FileCloser {
    void operator()(std::FILE* f) const {
        if (f != nullptr) std::fclose(f);
    }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// libpng reports errors through longjmp; the message is kept for ToolError.
struct PngErrorState {
    char message[256] = {0};
};

void PngError(png_structp png, png_const_charp msg) {
    auto* state = static_cast<PngErrorState*>(png_get_error_ptr(png));
    std::snprintf(state->message, sizeof state->message, "%s", msg);
    png_longjmp(png, 1);
}

void PngWarning(png_structp, png_const_charp) {}

// libpng allocates a chunk's declared length before reading it, and inflates
// compressed text without a bound: a few dozen bytes could ask for gigabytes.
// So the chunk list is walked first: a chunk that runs past the end of the
// file is damage, and the text chunks (which never change a pixel) are left
// out of what libpng sees.
std::vector<uint8_t> CheckedPngChunks(const std::string& path, const std::vector<uint8_t>& bytes) {
    constexpr size_t kSignature = 8, kHeader = 8, kFrame = 12;  // length, type (, CRC)
    std::vector<uint8_t> kept;
    size_t at = kSignature, copied = 0;
    // Every chunk whose length and type are there is checked, the last one
    // too: libpng acts on a declared length before it misses the CRC.
    while (bytes.size() >= kSignature && bytes.size() - at >= kHeader) {
        const uint8_t* c = bytes.data() + at;
        const size_t length = static_cast<size_t>(c[0]) << 24 | static_cast<size_t>(c[1]) << 16 |
                              static_cast<size_t>(c[2]) << 8 | c[3];
        const std::string type(reinterpret_cast<const char*>(c + 4), 4);
        const size_t left = bytes.size() - at;
        if (left < kFrame || length > left - kFrame) {
            throw ToolError("cannot decode PNG '" + path + "': a chunk runs past the end of the file",
                            kExitInput);
        }
        const size_t next = at + kFrame + length;
        if (type == "tEXt" || type == "zTXt" || type == "iTXt") {
            kept.insert(kept.end(), bytes.begin() + static_cast<long>(copied),
                        bytes.begin() + static_cast<long>(at));
            copied = next;
        }
        at = next;
        if (type == "IEND") break;
    }
    if (copied == 0) return {};
    kept.insert(kept.end(), bytes.begin() + static_cast<long>(copied), bytes.end());
    return kept;
}

// Bytes handed to libpng's reader from memory; running past them is damage.
struct PngSource {
    const uint8_t* data;
    size_t size;
    size_t at;
};

void PngRead(png_structp png, png_bytep out, png_size_t n) {
    auto* src = static_cast<PngSource*>(png_get_io_ptr(png));
    if (n > src->size - src->at) png_error(png, "Read Error: file truncated");
    std::memcpy(out, src->data + src->at, n);
    src->at += n;
}

// 16-bit samples become their high byte, as an 8-bit reader of such files
// is expected to give: no gamma curve, nothing premultiplied. (libpng's
// simplified reader takes 16-bit files for linear light and encodes them to
// sRGB on the way to 8 bits.) `pic` is allocated; its channel count says
// whether gray, alpha or a transparent colour become R,G,B(,A).
void ReadPng16(const std::string& path, const std::vector<uint8_t>& bytes, Picture& pic) {
    PngErrorState state;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &state, PngError, PngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr) {
        png_destroy_read_struct(&png, &info, nullptr);
        throw ToolError("cannot decode PNG '" + path + "': out of memory", kExitInput);
    }
    PngSource src{bytes.data(), bytes.size(), 0};
    std::vector<png_bytep> rows(static_cast<size_t>(pic.height));
    if (setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_read_struct(&png, &info, nullptr);
        throw ToolError("cannot decode PNG '" + path + "': " + state.message, kExitInput);
    }
    png_set_read_fn(png, &src, PngRead);
    png_read_info(png, info);
    png_set_strip_16(png);
    if (png_get_valid(png, info, PNG_INFO_tRNS) != 0) png_set_tRNS_to_alpha(png);
    if (pic.channels >= 3 && (png_get_color_type(png, info) & PNG_COLOR_MASK_COLOR) == 0) {
        png_set_gray_to_rgb(png);
    }
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    const size_t stride = static_cast<size_t>(pic.width) * static_cast<size_t>(pic.channels);
    if (png_get_rowbytes(png, info) != stride) png_error(png, "unexpected row layout");
    for (int y = 0; y < pic.height; ++y) rows[static_cast<size_t>(y)] = pic.pixels.data() + stride * y;
    png_read_image(png, rows.data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
}

Picture ReadPng(const std::string& path, const std::vector<uint8_t>& all_bytes) {
    const std::vector<uint8_t> without_text = CheckedPngChunks(path, all_bytes);
    const std::vector<uint8_t>& bytes = without_text.empty() ? all_bytes : without_text;
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_memory(&image, bytes.data(), bytes.size()) == 0) {
        throw ToolError("cannot decode PNG '" + path + "': " + image.message, kExitInput);
    }
    int channels = 0;
    if (image.format & PNG_FORMAT_FLAG_ALPHA) {
        image.format = PNG_FORMAT_RGBA;
        channels = 4;
    } else if (image.format & PNG_FORMAT_FLAG_COLOR) {
        image.format = PNG_FORMAT_RGB;
        channels = 3;
    } else {
        image.format = PNG_FORMAT_GRAY;
        channels = 1;
    }
    if (image.width == 0 || image.height == 0 || image.width > (1u << 15) ||
        image.height > (1u << 15)) {
        png_image_free(&image);
        throw ToolError("PNG '" + path + "' has an unsupported size", kExitInput);
    }
    // A few dozen bytes can declare a picture of gigabytes: check before
    // allocating.
    try {
        CheckPixels(image.width, image.height, "PNG '" + path + "'", kExitInput);
    } catch (...) {
        png_image_free(&image);
        throw;
    }
    Picture pic(static_cast<int>(image.width), static_cast<int>(image.height), channels);
    // The header chunk comes first (libpng has checked that): its bit depth
    // sits 24 bytes into the file.
    if (bytes[24] == 16) {
        png_image_free(&image);
        ReadPng16(path, bytes, pic);
        return pic;
    }
    if (png_image_finish_read(&image, nullptr, pic.pixels.data(), 0, nullptr) == 0) {
        std::string msg = image.message;
        png_image_free(&image);
        throw ToolError("cannot decode PNG '" + path + "': " + msg, kExitInput);
    }
    return pic;
}

struct JpegErrorState {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX] = {0};
};

void JpegError(j_common_ptr info) {
    auto* state = reinterpret_cast<JpegErrorState*>(info->err);
    (*info->err->format_message)(info, state->message);
    std::longjmp(state->jump, 1);
}

// libjpeg reports damaged data (a file cut short, a corrupt scan) as a
// warning and fills the missing pixels with gray. A damaged PNG is refused,
// and so is a damaged JPEG: every warning is an error here.
void JpegMessage(j_common_ptr info, int level) {
    if (level < 0) JpegError(info);
}

// A progressive JPEG of a few hundred bytes can hold thousands of scans,
// each a pass over the whole picture; no real encoder writes more than a
// few dozen.
constexpr int kMaxJpegScans = 256;

void JpegProgress(j_common_ptr info) {
    if (info->is_decompressor) {
        auto* d = reinterpret_cast<j_decompress_ptr>(info);
        if (d->input_scan_number > kMaxJpegScans) {
            auto* state = reinterpret_cast<JpegErrorState*>(info->err);
            std::snprintf(state->message, sizeof state->message,
                          "more than %d scans", kMaxJpegScans);
            std::longjmp(state->jump, 1);
        }
    }
}

Picture ReadJpeg(const std::string& path, const std::vector<uint8_t>& bytes) {
    jpeg_decompress_struct info;
    JpegErrorState err;
    jpeg_progress_mgr progress{};
    info.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = JpegError;
    err.mgr.emit_message = JpegMessage;
    progress.progress_monitor = JpegProgress;
    // Everything the jump may skip over is set up before setjmp.
    Picture pic;
    std::string refusal;
    if (setjmp(err.jump) != 0) {
        jpeg_destroy_decompress(&info);
        throw ToolError("cannot decode JPEG '" + path + "': " + err.message, kExitInput);
    }
    jpeg_create_decompress(&info);
    info.progress = &progress;
    jpeg_mem_src(&info, bytes.data(), static_cast<unsigned long>(bytes.size()));
    jpeg_read_header(&info, TRUE);
    bool gray = info.jpeg_color_space == JCS_GRAYSCALE;
    if (!gray && info.jpeg_color_space != JCS_YCbCr && info.jpeg_color_space != JCS_RGB) {
        refusal = "JPEG '" + path + "' uses an unsupported colour space (not gray or RGB)";
    } else if (static_cast<uint64_t>(info.image_width) * info.image_height >
               ToolLimits().max_pixels) {
        // Checked before the decoder allocates anything of that size.
        refusal = "JPEG '" + path + "' of " + std::to_string(info.image_width) + "x" +
                  std::to_string(info.image_height) + " pixels is above the limit of " +
                  std::to_string(ToolLimits().max_pixels) + " pixels (--max-pixels)";
    }
    if (!refusal.empty()) {
        jpeg_destroy_decompress(&info);
        throw ToolError(refusal, kExitInput);
    }
    info.out_color_space = gray ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_start_decompress(&info);
    pic.width = static_cast<int>(info.output_width);
    pic.height = static_cast<int>(info.output_height);
    pic.channels = static_cast<int>(info.output_components);
    pic.pixels.resize(static_cast<size_t>(pic.width) * pic.height * pic.channels);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = pic.pixels.data() +
                       static_cast<size_t>(info.output_scanline) * pic.width * pic.channels;
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    return pic;
}

enum class PictureKind { kPng, kJpeg };

PictureKind KindOf(const std::string& path, const uint8_t* bytes, size_t size) {
    static const uint8_t kPngMagic[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    if (size >= 8 && std::memcmp(bytes, kPngMagic, 8) == 0) return PictureKind::kPng;
    if (size >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF) {
        return PictureKind::kJpeg;
    }
    throw ToolError("'" + path + "' is neither a PNG nor a JPEG file", kExitInput);
}

}  // namespace

Picture ReadPicture(const std::string& path) { return DecodePicture(path, ReadPictureBytes(path)); }

std::vector<uint8_t> ReadPictureBytes(const std::string& path) {
    // Another kind of file is refused from its first bytes, and a file longer
    // than any picture within --max-pixels before it is read whole.
    ReadCap cap;
    cap.bytes = PictureFileLimit();
    cap.too_long = "is longer than any picture of at most " +
                   std::to_string(ToolLimits().max_pixels) + " pixels can be (" +
                   std::to_string((cap.bytes + (1u << 20) - 1) >> 20) + " MiB, --max-pixels)";
    cap.check_start = [&path](const uint8_t* data, size_t size) { KindOf(path, data, size); };
    return ReadFileBytes(path, cap);
}

bool IsJpeg(const std::vector<uint8_t>& bytes) {
    return bytes.size() >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF;
}

Picture DecodePicture(const std::string& path, const std::vector<uint8_t>& bytes) {
    return KindOf(path, bytes.data(), bytes.size()) == PictureKind::kPng ? ReadPng(path, bytes)
                                                                          : ReadJpeg(path, bytes);
}

void WritePng(const std::string& path, const Picture& pic, bool bgr) {
    if (pic.channels != 1 && pic.channels != 3 && pic.channels != 4) {
        throw ToolError("cannot write a PNG of " + std::to_string(pic.channels) + " channels",
                        kExitOutput);
    }
    WriteAtomically(path, [&](const std::string& tmp) {
        FilePtr file(std::fopen(tmp.c_str(), "wb"));
        if (!file) throw ToolError("cannot write '" + path + "'", kExitOutput);
        PngErrorState state;
        png_structp png =
            png_create_write_struct(PNG_LIBPNG_VER_STRING, &state, PngError, PngWarning);
        png_infop info = png ? png_create_info_struct(png) : nullptr;
        if (png == nullptr || info == nullptr) {
            png_destroy_write_struct(&png, &info);
            throw ToolError("cannot write '" + path + "': out of memory", kExitOutput);
        }
        if (setjmp(png_jmpbuf(png)) != 0) {
            png_destroy_write_struct(&png, &info);
            throw ToolError("cannot write '" + path + "': " + state.message, kExitOutput);
        }
        png_init_io(png, file.get());
        int type = pic.channels == 1   ? PNG_COLOR_TYPE_GRAY
                   : pic.channels == 3 ? PNG_COLOR_TYPE_RGB
                                       : PNG_COLOR_TYPE_RGBA;
        png_set_IHDR(png, info, static_cast<png_uint_32>(pic.width),
                     static_cast<png_uint_32>(pic.height), 8, type, PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        png_write_info(png, info);
        if (bgr && pic.channels >= 3) png_set_bgr(png);
        size_t stride = static_cast<size_t>(pic.width) * pic.channels;
        for (int y = 0; y < pic.height; ++y) {
            png_write_row(png, const_cast<png_bytep>(pic.pixels.data() + stride * y));
        }
        png_write_end(png, info);
        png_destroy_write_struct(&png, &info);
        std::FILE* raw = file.release();
        if (std::fclose(raw) != 0) throw ToolError("cannot write '" + path + "'", kExitOutput);
    });
}

bool IsPictureFile(const std::string& path) {
    std::string ext = Extension(path);
    return ext == ".png" || ext == ".jpg" || ext == ".jpeg";
}

}  // namespace qvntool
