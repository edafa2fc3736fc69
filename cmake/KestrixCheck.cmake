# `cmake --build build --target check` holds the arrows between rooms against CONTRIBUTING.md, runs clang-format (dry)
# and clang-tidy over the project's own sources, runs the commands of the documents, and holds the programs' options against
# their man pages and the shell's completion.
file(GLOB_RECURSE KESTRIX_CHECKED CONFIGURE_DEPENDS
  src/*.cpp src/*.h tools/*.cpp tools/*.h tests/*.cpp tests/*.h bench/*.cpp)
set(KESTRIX_TIDIED ${KESTRIX_CHECKED})
list(FILTER KESTRIX_TIDIED INCLUDE REGEX "\\.cpp$")
# Of a CUDA or a fuzz build only.
list(FILTER KESTRIX_TIDIED EXCLUDE REGEX "(gpu_scan_bench|test_without_gpu|fuzz_main)\\.cpp$")
find_program(CLANG_FORMAT NAMES clang-format clang-format-14)
find_program(CLANG_TIDY NAMES clang-tidy clang-tidy-14)

add_custom_target(check-format
  COMMAND ${CLANG_FORMAT} --dry-run --Werror ${KESTRIX_CHECKED}
  COMMENT "clang-format" VERBATIM)
list(JOIN KESTRIX_TIDIED "\n" KESTRIX_TIDIED_LINES)
file(WRITE ${CMAKE_BINARY_DIR}/tidied.txt "${KESTRIX_TIDIED_LINES}\n")
add_custom_target(check-tidy
  COMMAND xargs -a ${CMAKE_BINARY_DIR}/tidied.txt -P 2 -n 4 ${CLANG_TIDY} -p ${CMAKE_BINARY_DIR} --quiet
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} COMMENT "clang-tidy" VERBATIM)
add_custom_target(check-arrows
  COMMAND ${CMAKE_SOURCE_DIR}/tools/arrows.sh --check COMMENT "arrows between rooms" VERBATIM)
add_custom_target(check-documents
  COMMAND ${CMAKE_SOURCE_DIR}/tools/check_docs.sh ${CMAKE_BINARY_DIR} COMMENT "commands of the documents" VERBATIM)
add_custom_target(check-options
  COMMAND ${CMAKE_SOURCE_DIR}/tools/check_options.sh ${CMAKE_BINARY_DIR}
  COMMENT "options against man pages and completion" VERBATIM)
foreach(checked check-documents check-options)
  add_dependencies(${checked} kestrix kestrix_simulate kestrix_score kestrix_lists kestrix_report gpu_probe)
endforeach()
add_custom_target(check DEPENDS check-arrows check-format check-tidy check-documents check-options)
