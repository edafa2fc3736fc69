# What is installed beside the programs, its removal, and the Debian package.
file(GLOB KESTRIX_DOCUMENTS CONFIGURE_DEPENDS README.md CHANGELOG.md docs/*.md)
install(FILES ${KESTRIX_DOCUMENTS} DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/images DESTINATION ${CMAKE_INSTALL_DOCDIR})
file(GLOB KESTRIX_EXAMPLES CONFIGURE_DEPENDS examples/*.sh)
install(PROGRAMS ${KESTRIX_EXAMPLES} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Compressed as packages want them; man reads them either way.
find_program(GZIP gzip REQUIRED)
function(kestrix_install_compressed file destination name)
  get_filename_component(stem ${name} NAME)
  set(compressed ${CMAKE_BINARY_DIR}/compressed/${stem}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/compressed
    COMMAND sh -c "'${GZIP}' -9n <'${file}' >'${compressed}'"
    DEPENDS ${file} VERBATIM)
  set_property(GLOBAL APPEND PROPERTY KESTRIX_COMPRESSED ${compressed})
  install(FILES ${compressed} DESTINATION ${destination})
endfunction()
set(KESTRIX_PROGRAMS kestrix kestrix_lists kestrix_report kestrix_simulate kestrix_score gpu_probe)
if(TARGET kestrix_mpi)
  list(APPEND KESTRIX_PROGRAMS kestrix_mpi)
endif()
foreach(program ${KESTRIX_PROGRAMS})
  kestrix_install_compressed(${CMAKE_SOURCE_DIR}/docs/${program}.1 ${CMAKE_INSTALL_MANDIR}/man1 ${program}.1)
endforeach()
# The name of a package that Debian has no other sources of.
kestrix_install_compressed(${CMAKE_SOURCE_DIR}/packaging/changelog.Debian ${CMAKE_INSTALL_DOCDIR} changelog)
get_property(KESTRIX_COMPRESSED GLOBAL PROPERTY KESTRIX_COMPRESSED)
add_custom_target(compressed_documents ALL DEPENDS ${KESTRIX_COMPRESSED})

# The shell looks a program's completion up under the program's name.
set(KESTRIX_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES packaging/kestrix.bash DESTINATION ${KESTRIX_COMPLETIONS} RENAME kestrix)
set(KESTRIX_COMPLETED ${KESTRIX_PROGRAMS})
list(REMOVE_ITEM KESTRIX_COMPLETED kestrix)
foreach(program ${KESTRIX_COMPLETED})
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/completions)
  file(CREATE_LINK kestrix ${CMAKE_BINARY_DIR}/completions/${program} SYMBOLIC)
  install(FILES ${CMAKE_BINARY_DIR}/completions/${program} DESTINATION ${KESTRIX_COMPLETIONS})
endforeach()

add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -D MANIFEST=${CMAKE_BINARY_DIR}/install_manifest.txt -P ${CMAKE_SOURCE_DIR}/cmake/uninstall.cmake
  COMMENT "Removing what install has put there" VERBATIM)

# --- kestrix_VERSION_ARCHITECTURE.deb, by `cpack` in the build folder ---
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
include(CPack)
