# diskcache_manual(PAGE): manual page PAGE, NAME.SECTION, as target PAGE_manual, from docs/PAGE.scd.
function(diskcache_manual page)
  find_program(SCDOC scdoc REQUIRED)
  cmake_path(GET page EXTENSION LAST_ONLY section)
  string(REPLACE . man section ${section})
  set(source ${PROJECT_SOURCE_DIR}/docs/${page}.scd)
  set(manual ${PROJECT_BINARY_DIR}/man/${section}/${page})
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man/${section})
  add_custom_command(
    OUTPUT ${manual}
    COMMAND sh -c "'${SCDOC}' <'${source}' >'${manual}'"
    DEPENDS ${source}
    VERBATIM)
  add_custom_target(${page}_manual ALL DEPENDS ${manual})
  if(DISKCACHE_INSTALL)
    install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/${section} COMPONENT ${ARGN})
  endif()
endfunction()
