// image_io.hpp - PNG (libpng) and JPEG (libjpeg) files to and from packed
// 8-bit pixels. File format conversion only.
#ifndef QVN_IO_IMAGE_IO_HPP
#define QVN_IO_IMAGE_IO_HPP

#include <cstdint>
#include <string>
#include <vector>

namespace qvntool {

// Packed pixels, rows without padding. channels 1 (gray), 3 (R,G,B) or
// 4 (R,G,B,A) on reading; writing also takes B,G,R(,A) through `bgr`.
struct Picture {
    int width = 0;
    int height = 0;
    int channels = 0;
    std::vector<uint8_t> pixels;

    Picture() = default;
    Picture(int w, int h, int c)
        : width(w), height(h), channels(c),
          pixels(static_cast<size_t>(w) * static_cast<size_t>(h) * static_cast<size_t>(c)) {}
};

// Reads a PNG or JPEG, told apart by their first bytes. 16-bit PNG samples
// become their high byte, palettes are expanded, gray+alpha becomes R,G,B,A.
// ToolError naming the file on any fault, a damaged JPEG included, for a
// picture above --max-pixels (checked before its pixels are allocated), and
// for a file that starts like neither format or is longer than any picture
// within --max-pixels can be (PictureFileLimit; checked before it is read
// whole).
Picture ReadPicture(const std::string& path);
// The same from bytes in memory; `path` only names them in messages.
Picture DecodePicture(const std::string& path, const std::vector<uint8_t>& bytes);
// The bytes of a picture file, under the same checks as ReadPicture (a
// file of another kind, or longer than any picture within --max-pixels,
// is refused), for a caller that picks its decoder by the kind of file.
std::vector<uint8_t> ReadPictureBytes(const std::string& path);
// True when the bytes start like a JPEG (the test DecodePicture makes).
bool IsJpeg(const std::vector<uint8_t>& bytes);

// Writes a PNG atomically (see WriteAtomically). `bgr` says the pixels are
// stored B,G,R(,A).
void WritePng(const std::string& path, const Picture& pic, bool bgr = false);

// True for paths ending in .png, .jpg or .jpeg.
bool IsPictureFile(const std::string& path);

}  // namespace qvntool

#endif  // QVN_IO_IMAGE_IO_HPP
