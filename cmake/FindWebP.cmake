# Finds libwebp's encoder and defines the imported target WebP::webp, the name libwebp's own CMake package
# gives it. Debian ships libwebp with a pkg-config file only; pkg-config, when present, supplies the hints.
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(PC_WebP QUIET libwebp)
endif()

find_path(WebP_INCLUDE_DIR NAMES webp/encode.h HINTS ${PC_WebP_INCLUDE_DIRS})
find_library(WebP_LIBRARY NAMES webp HINTS ${PC_WebP_LIBRARY_DIRS})
set(WebP_VERSION ${PC_WebP_VERSION})

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(WebP REQUIRED_VARS WebP_LIBRARY WebP_INCLUDE_DIR VERSION_VAR WebP_VERSION)
mark_as_advanced(WebP_INCLUDE_DIR WebP_LIBRARY)

if(WebP_FOUND AND NOT TARGET WebP::webp)
  add_library(WebP::webp UNKNOWN IMPORTED)
  set_target_properties(WebP::webp PROPERTIES
    IMPORTED_LOCATION "${WebP_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${WebP_INCLUDE_DIR}")
endif()
