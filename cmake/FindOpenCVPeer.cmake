# Finds OpenCV's core and imgproc modules (Debian: libopencv-imgproc-dev),
# used only by tests and benchmarks as an independent reference and peer.
# Debian's -dev packages for single modules ship no CMake config, so the
# headers and libraries are located directly. Defines OpenCVPeer::imgproc,
# and OpenCVPeer::objdetect (the HOG people detector of the examples) when
# libopencv-objdetect-dev is installed too.
find_path(OpenCVPeer_INCLUDE_DIR NAMES opencv2/imgproc.hpp PATH_SUFFIXES opencv4)
find_library(OpenCVPeer_CORE_LIBRARY NAMES opencv_core)
find_library(OpenCVPeer_IMGPROC_LIBRARY NAMES opencv_imgproc)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenCVPeer REQUIRED_VARS
  OpenCVPeer_INCLUDE_DIR OpenCVPeer_CORE_LIBRARY OpenCVPeer_IMGPROC_LIBRARY)
if(OpenCVPeer_FOUND AND NOT TARGET OpenCVPeer::imgproc)
  add_library(OpenCVPeer::imgproc INTERFACE IMPORTED)
  set(_qvn_cv_includes ${OpenCVPeer_INCLUDE_DIR})
  # opencv2/cvconfig.h and friends live in the multiarch include directory.
  if(EXISTS /usr/include/x86_64-linux-gnu/opencv4)
    list(APPEND _qvn_cv_includes /usr/include/x86_64-linux-gnu/opencv4)
  endif()
  set_target_properties(OpenCVPeer::imgproc PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${_qvn_cv_includes}"
    INTERFACE_LINK_LIBRARIES "${OpenCVPeer_IMGPROC_LIBRARY};${OpenCVPeer_CORE_LIBRARY}")
endif()
find_library(OpenCVPeer_OBJDETECT_LIBRARY NAMES opencv_objdetect)
find_path(OpenCVPeer_OBJDETECT_INCLUDE_DIR NAMES opencv2/objdetect.hpp PATH_SUFFIXES opencv4)
if(OpenCVPeer_FOUND AND OpenCVPeer_OBJDETECT_LIBRARY AND OpenCVPeer_OBJDETECT_INCLUDE_DIR
   AND NOT TARGET OpenCVPeer::objdetect)
  add_library(OpenCVPeer::objdetect INTERFACE IMPORTED)
  set_target_properties(OpenCVPeer::objdetect PROPERTIES
    INTERFACE_LINK_LIBRARIES "${OpenCVPeer_OBJDETECT_LIBRARY};OpenCVPeer::imgproc")
endif()
mark_as_advanced(OpenCVPeer_OBJDETECT_LIBRARY OpenCVPeer_OBJDETECT_INCLUDE_DIR)
mark_as_advanced(OpenCVPeer_INCLUDE_DIR OpenCVPeer_CORE_LIBRARY OpenCVPeer_IMGPROC_LIBRARY)
