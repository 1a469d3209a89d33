// module.cpp - the Python module `qvn_kit`: the kit's preprocessing,
// decoding, tracking and re-orientation over NumPy arrays.
//
// Every function checks its arguments completely before it touches an
// output, so a refused call raises TypeError/ValueError and writes nothing.
// Inputs that are C-contiguous and of the right dtype are read in place;
// anything else of the right dtype is made contiguous once, after every
// check (MemoryError when that copy cannot be allocated). The GIL is
// released around every call into the kit, so a thread pool over frames
// runs on all cores. Each area of the module registers its own functions
// (registry.hpp); this file puts them together.
#include "log_route.hpp"
#include "registry.hpp"

#include <qvn_kit/qvn_kit.hpp>
#include <quvas/utility/log.h>

namespace py = pybind11;

PYBIND11_MODULE(qvn_kit, m) {
    m.doc() =
        "The device's exact preprocessing and decoding over NumPy arrays.\n\n"
        "Every function gives, byte for byte, what libqvn_kit gives the device. Arrays are\n"
        "read in place when C-contiguous; results are new arrays unless `out` is given.\n"
        "Sizes are (height, width). Library log lines go to logging.getLogger('qvn_kit').";

    QVN_SetLogCallback(&qvnpy::CollectLogLine);

    uint32_t kit_major = 0, kit_minor = 0;
    QVN_GetKitVersion(&kit_major, &kit_minor);
    unsigned core_major = 0, core_minor = 0;
    QVN_Get_Core_Version(core_major, core_minor);
    m.attr("__version__") = QVN_PYTHON_VERSION;
    m.attr("kit_version") = py::make_tuple(kit_major, kit_minor);
    m.attr("core_version") = py::make_tuple(core_major, core_minor);

    qvnpy::RegisterPictures(m);
    qvnpy::RegisterTransform(m);  // before preprocess, which returns one
    qvnpy::RegisterPreprocess(m);
    qvnpy::RegisterImages(m);
    qvnpy::RegisterGeometry(m);
    qvnpy::RegisterOutputs(m);
    qvnpy::RegisterDecoders(m);
    qvnpy::RegisterTrackers(m);
}
