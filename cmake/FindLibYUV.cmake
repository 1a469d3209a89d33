# Finds libyuv (Debian: libyuv-dev), which ships no CMake or pkg-config file.
# Defines the imported target LibYUV::LibYUV.
find_path(LibYUV_INCLUDE_DIR NAMES libyuv.h)
find_library(LibYUV_LIBRARY NAMES yuv)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LibYUV REQUIRED_VARS LibYUV_LIBRARY LibYUV_INCLUDE_DIR)
if(LibYUV_FOUND AND NOT TARGET LibYUV::LibYUV)
  add_library(LibYUV::LibYUV UNKNOWN IMPORTED)
  set_target_properties(LibYUV::LibYUV PROPERTIES
    IMPORTED_LOCATION ${LibYUV_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${LibYUV_INCLUDE_DIR})
endif()
mark_as_advanced(LibYUV_INCLUDE_DIR LibYUV_LIBRARY)
