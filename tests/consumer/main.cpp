// An outside project using the installed package through find_package.
#include <qvn_kit/qvn_kit.hpp>
#include <quvas/qvn_core.h>

#include <cstdio>

int main() {
    uint32_t major = 0, minor = 0;
    if (QVN_GetKitVersion(&major, &minor) != QVN_RESULT_SUCCESS) return 1;
    if (major != 1 || minor != 0) return 2;
    QVN_Image img{};
    img.width = 4;
    img.height = 2;
    img.pix_fmt = QVN_PIX_FMT_BGRA8888;
    uint32_t bytes = 0;
    if (QVN_Get_QVNImage_Bytes(&img, &bytes) != 0 || bytes != 32) return 3;
    // A C++ entry point: an image without data is refused.
    quvas::utility::SetLogLevel(32);  // keep the expected rejection quiet
    if (quvas::kit::Is_Valid_QVN_Image_For_CPU(&img, true)) return 4;
    std::puts("consumer ok");
    return 0;
}
