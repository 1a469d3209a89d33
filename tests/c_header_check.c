/* The public header compiles as C11 (with -pedantic -Werror) and its flat
 * functions link from C. The layout assertions in the header run here too. */
#include <qvn_kit/qvn_kit.h>

#include <stdio.h>
#include <stdlib.h>

int main(void) {
    uint32_t major = 0, minor = 0;
    if (QVN_GetKitVersion(&major, &minor) != QVN_RESULT_SUCCESS || major != 1 || minor != 0) {
        fprintf(stderr, "version %u.%u\n", major, minor);
        return 1;
    }
    QVN_Image img = {0};
    img.pix_fmt = QVN_PIX_FMT_YUV420SP_C;
    img.width = 3;
    img.height = 3;
    uint32_t bytes = 0;
    if (QVN_Get_QVNImage_Bytes(&img, &bytes) != 0 || bytes != 13) return 2;
    QVN_ObjCountDataArr arr = {1, (QVN_Rect2D*)malloc(sizeof(QVN_Rect2D))};
    QVN_ObjCountDataArr_Free(&arr);
    if (arr.objRectArr != NULL || arr.count != 1) return 3;
    if (QVN_SetLogLevel(0) != QVN_RESULT_INVALID_ARG) return 4;
    puts("c header ok");
    return 0;
}
