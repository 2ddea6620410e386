# Every public header must stand alone and compile as C++17: one translation unit per header that
# includes only that header.
file(GLOB_RECURSE _kx_public_headers CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/include/kx/*.h
  ${PROJECT_SOURCE_DIR}/platform/*/include/kx/*.h)
set(_check_sources)
foreach(_h IN LISTS _kx_public_headers)
  string(REGEX REPLACE "^.*/include/" "" _rel ${_h})
  string(MAKE_C_IDENTIFIER ${_rel} _id)
  set(_tu ${CMAKE_BINARY_DIR}/header_check/${_id}.cpp)
  if(NOT EXISTS ${_tu})
    file(WRITE ${_tu} "#include <${_rel}>\n#include <${_rel}>\n")
  endif()
  list(APPEND _check_sources ${_tu})
endforeach()
if(_check_sources)
  add_library(kx_header_check OBJECT ${_check_sources})
  set_target_properties(kx_header_check PROPERTIES CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
  target_include_directories(kx_header_check PRIVATE
    ${PROJECT_SOURCE_DIR}/include
    ${PROJECT_SOURCE_DIR}/platform/system/include
    ${PROJECT_SOURCE_DIR}/platform/json/include
    ${PROJECT_SOURCE_DIR}/platform/crypto/include
    ${PROJECT_SOURCE_DIR}/platform/compress/include)
endif()
