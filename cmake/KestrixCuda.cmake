# The CUDA toolkit, the GPUs to build for, and which sources need its compiler.

# GPUs to build for unless CMAKE_CUDA_ARCHITECTURES says: machine code for the first of each generation from compute
# capability 7.0 that the toolkit knows, and the intermediate code of the oldest, which the driver compiles for every
# other GPU, those of the future included.
function(kestrix_default_architectures out)
  set(version ${CMAKE_CUDA_COMPILER_VERSION})
  if(version VERSION_LESS 11.8)
    message(FATAL_ERROR "Kestrix needs CUDA 11.8 or newer; ${CMAKE_CUDA_COMPILER} is of ${version}")
  elseif(version VERSION_LESS 12.8)
    set(${out} 70 80-real 90-real PARENT_SCOPE)
  elseif(version VERSION_LESS 13)
    set(${out} 70 80-real 90-real 100-real 120-real PARENT_SCOPE)
  else()
    set(${out} 75 80-real 90-real 100-real 120-real PARENT_SCOPE)
  endif()
endfunction()

if(NOT DEFINED CMAKE_CUDA_ARCHITECTURES AND NOT DEFINED ENV{CUDAARCHS})
  # The default needs the compiler's version, and CMake asks for a value before it tells.
  set(CMAKE_CUDA_ARCHITECTURES OFF)
  enable_language(CUDA)
  kestrix_default_architectures(architectures)
  unset(CMAKE_CUDA_ARCHITECTURES)
  set(CMAKE_CUDA_ARCHITECTURES "${architectures}" CACHE STRING "GPUs to build for (see docs/gpu.md)")
else()
  enable_language(CUDA)
endif()
message(STATUS "Building for the GPU architectures ${CMAKE_CUDA_ARCHITECTURES}")
find_package(CUDAToolkit REQUIRED)
set(CMAKE_CUDA_STANDARD 17)
set(CMAKE_CUDA_STANDARD_REQUIRED ON)

# Of the given sources those that include one of the two headers that launch kernels.
function(kestrix_sources_that_launch out folder)
  set(launching)
  foreach(source IN LISTS ARGN)
    get_filename_component(path ${source} ABSOLUTE BASE_DIR ${folder})
    file(STRINGS ${path} includes REGEX "^#include \"platform/(launch|block_sum)\\.h\"")
    if(includes)
      list(APPEND launching ${source})
      # A source that begins or ends to launch is sorted anew.
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
    endif()
  endforeach()
  set(${out} ${launching} PARENT_SCOPE)
endfunction()
