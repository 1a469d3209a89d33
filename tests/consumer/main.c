/* An outside C program using the installed library through pkg-config. */
#include <qvn_kit/qvn_kit.h>

#include <stdio.h>

int main(void) {
    uint32_t major = 0, minor = 0;
    if (QVN_GetKitVersion(&major, &minor) != QVN_RESULT_SUCCESS) return 1;
    QVN_Image img = {0};
    img.pix_fmt = QVN_PIX_FMT_RGB888;
    img.width = 5;
    img.height = 3;
    uint32_t bytes = 0;
    if (QVN_Get_QVNImage_Bytes(&img, &bytes) != QVN_RESULT_SUCCESS || bytes != 45) return 2;
    printf("pkg-config consumer ok %u.%u\n", major, minor);
    return 0;
}
