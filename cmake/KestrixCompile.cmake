# How the program's sources are compiled: language standard, floating point rules, warnings, sanitizers,
# and the device (host or CUDA) that they are compiled for.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# No fused multiply-adds behind our back, so that bits agree between instruction sets and devices; traps and
# errno are never looked at, and without them clamping loops vectorise.
# -Wno-psabi: vectors wider than the baseline's registers pass between inlined functions only.
set(KESTRIX_FLAGS -fno-trapping-math -fno-math-errno -ffp-contract=off -Wall -Wextra -Wshadow -Wno-psabi)
if(KESTRIX_SANITIZE)
  # One by one: nvcc splits what it hands to the host compiler at commas.
  set(KESTRIX_SANITIZERS -fsanitize=address -fsanitize=undefined -fsanitize=float-cast-overflow)
  list(APPEND KESTRIX_FLAGS ${KESTRIX_SANITIZERS} -fno-sanitize-recover=undefined
    -fno-sanitize-recover=float-cast-overflow -fno-omit-frame-pointer)
  add_link_options(${KESTRIX_SANITIZERS})
endif()
if(KESTRIX_FUZZ)
  list(APPEND KESTRIX_FLAGS -fsanitize=fuzzer-no-link -Wno-pass-failed)
endif()

find_package(OpenMP REQUIRED COMPONENTS CXX)

if(KESTRIX_CUDA)
  include(KestrixCuda)
else()
  find_path(FFTW3_INCLUDE_DIR fftw3.h REQUIRED)
  find_library(FFTW3F_LIBRARY fftw3f REQUIRED)
  find_library(FFTW3F_OMP_LIBRARY fftw3f_omp REQUIRED)
endif()

# Compiles a target's sources for the chosen device. In a CUDA build those that launch kernels go through nvcc, the
# others straight to the host compiler, which is many times faster.
function(kestrix_compile_for_device target)
  if(KESTRIX_CUDA)
    get_target_property(sources ${target} SOURCES)
    get_target_property(folder ${target} SOURCE_DIR)
    kestrix_sources_that_launch(launching ${folder} ${sources})
    set_source_files_properties(${launching} TARGET_DIRECTORY ${target} PROPERTIES LANGUAGE CUDA)
    # g++ takes nvcc's rewriting of pointers to members for needless parentheses.
    list(JOIN KESTRIX_FLAGS "," flags)
    string(APPEND flags ",-Wno-parentheses,-fopenmp")
    target_compile_options(${target} PRIVATE
      $<$<COMPILE_LANGUAGE:CUDA>:--fmad=false -Wno-deprecated-gpu-targets -Xcompiler=${flags} --expt-relaxed-constexpr>)
  endif()
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:${KESTRIX_FLAGS}>)
endfunction()

# Gives the library that holds the device layer its libraries.
function(kestrix_use_device target)
  if(KESTRIX_CUDA)
    target_compile_definitions(${target} PUBLIC KESTRIX_CUDA=1)
    target_link_libraries(${target} PUBLIC CUDA::cudart CUDA::cufft OpenMP::OpenMP_CXX)
  else()
    target_include_directories(${target} PRIVATE ${FFTW3_INCLUDE_DIR})
    target_link_libraries(${target} PUBLIC ${FFTW3F_OMP_LIBRARY} ${FFTW3F_LIBRARY} OpenMP::OpenMP_CXX m)
  endif()
  kestrix_compile_for_device(${target})
endfunction()

# Links a library that only some users need, and defines `definition` for the target's sources, where it is installed.
function(kestrix_use_if_found target package library definition)
  find_package(${package})
  if(NOT TARGET ${library})
    message(STATUS "Without ${package}: the files that need it will be refused")
    return()
  endif()
  target_link_libraries(${target} PRIVATE ${library})
  target_compile_definitions(${target} PRIVATE ${definition})
endfunction()
