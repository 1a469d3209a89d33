// registry.hpp - each area of the module adds its functions to the module
// object; module.cpp calls them in the order the help lists them.
#pragma once

#include <pybind11/pybind11.h>

namespace qvnpy {

void RegisterPictures(pybind11::module_& m);    // pictures.cpp: read_picture, make_frame
void RegisterPreprocess(pybind11::module_& m);  // preprocess.cpp: validate_frame, preprocess
void RegisterImages(pybind11::module_& m);      // images.cpp: turns and warps of images
void RegisterGeometry(pybind11::module_& m);    // geometry.cpp: matrices, boxes, points
void RegisterOutputs(pybind11::module_& m);     // outputs.cpp: masks, softmax
void RegisterDecoders(pybind11::module_& m);    // decoders.cpp: SoftArgMax
void RegisterTrackers(pybind11::module_& m);    // trackers.cpp: Kalman, One-Euro
void RegisterTransform(pybind11::module_& m);   // transform.cpp: TensorTransform

}  // namespace qvnpy
