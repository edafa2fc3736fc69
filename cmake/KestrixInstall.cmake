# What is installed beside the programs, its removal, and the Debian package.
file(GLOB KESTRIX_DOCUMENTS CONFIGURE_DEPENDS README.md CHANGELOG.md docs/*.md)
install(FILES ${KESTRIX_DOCUMENTS} DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/images DESTINATION ${CMAKE_INSTALL_DOCDIR})
file(GLOB KESTRIX_EXAMPLES CONFIGURE_DEPENDS examples/*.sh)
install(PROGRAMS ${KESTRIX_EXAMPLES} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Compressed as packages want them; man reads them either way.
find_program(GZIP gzip REQUIRED)
function(kestrix_install_compressed file destination name)  # and COMPONENT NAME, where it is of another package
  get_filename_component(stem ${name} NAME)
  set(compressed ${CMAKE_BINARY_DIR}/compressed/${stem}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/compressed
    COMMAND sh -c "'${GZIP}' -9n <'${file}' >'${compressed}'"
    DEPENDS ${file} VERBATIM)
  set_property(GLOBAL APPEND PROPERTY KESTRIX_COMPRESSED ${compressed})
  install(FILES ${compressed} DESTINATION ${destination} ${ARGN})
endfunction()
set(KESTRIX_PROGRAMS kestrix kestrix_lists kestrix_report kestrix_simulate kestrix_score gpu_probe)
foreach(program ${KESTRIX_PROGRAMS})
  kestrix_install_compressed(${CMAKE_SOURCE_DIR}/docs/${program}.1 ${CMAKE_INSTALL_MANDIR}/man1 ${program}.1)
endforeach()
# The name of a package that Debian has no other sources of.
kestrix_install_compressed(${CMAKE_SOURCE_DIR}/packaging/changelog.Debian ${CMAKE_INSTALL_DOCDIR} changelog)
# The shell looks a program's completion up under the program's name.
set(KESTRIX_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES packaging/kestrix.bash DESTINATION ${KESTRIX_COMPLETIONS} RENAME kestrix)
function(kestrix_install_completion program)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/completions)
  file(CREATE_LINK kestrix ${CMAKE_BINARY_DIR}/completions/${program} SYMBOLIC)
  install(FILES ${CMAKE_BINARY_DIR}/completions/${program} DESTINATION ${KESTRIX_COMPLETIONS} ${ARGN})
endfunction()
foreach(program kestrix_lists kestrix_report kestrix_simulate kestrix_score gpu_probe)
  kestrix_install_completion(${program})
endforeach()

# A package of its own, so that who picks on one machine needs no MPI.
if(TARGET kestrix_mpi)
  set(KESTRIX_MPI_DOCUMENTS ${CMAKE_INSTALL_DATADIR}/doc/kestrix-mpi)
  install(TARGETS kestrix_mpi RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT mpi)
  kestrix_install_compressed(${CMAKE_SOURCE_DIR}/docs/kestrix_mpi.1 ${CMAKE_INSTALL_MANDIR}/man1 kestrix_mpi.1 COMPONENT mpi)
  kestrix_install_completion(kestrix_mpi COMPONENT mpi)
  install(FILES packaging/copyright DESTINATION ${KESTRIX_MPI_DOCUMENTS} COMPONENT mpi)
  install(FILES ${CMAKE_BINARY_DIR}/compressed/changelog.gz DESTINATION ${KESTRIX_MPI_DOCUMENTS} COMPONENT mpi)
endif()

get_property(KESTRIX_COMPRESSED GLOBAL PROPERTY KESTRIX_COMPRESSED)
add_custom_target(compressed_documents ALL DEPENDS ${KESTRIX_COMPRESSED})

add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -D MANIFEST=${CMAKE_BINARY_DIR}/install_manifest.txt -P ${CMAKE_SOURCE_DIR}/cmake/uninstall.cmake
  COMMENT "Removing what install has put there" VERBATIM)

# --- kestrix_VERSION_ARCHITECTURE.deb and kestrix-mpi_..., by `cpack` in the build folder ---
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestrix)
set(CPACK_PACKAGE_VENDOR Kestrix)
set(CPACK_PACKAGE_CONTACT "Kestrix developers <kestrix@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "particle picker for cryo-electron microscopy")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Finds particles in micrographs by FFT template matching over all in-plane
angles, from class averages or without any template, and keeps away from ice,
aggregation and carbon by itself. Writes EMAN box and RELION STAR files, and a
page to look at the picks in any browser.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# kestrix and, where it is built, kestrix-mpi.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Unspecified)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME kestrix)
if(TARGET kestrix_mpi)
  list(APPEND CPACK_COMPONENTS_ALL mpi)
  set(CPACK_DEBIAN_MPI_PACKAGE_NAME kestrix-mpi)
  set(CPACK_DEBIAN_MPI_PACKAGE_DEPENDS "kestrix (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_MPI_PACKAGE_RECOMMENDS openmpi-bin)
  set(CPACK_COMPONENT_MPI_DESCRIPTION
"Shares a list of micrographs among the ranks of an MPI job, on one machine or
many; the lists of picks are those of one process.")
endif()
include(CPack)
