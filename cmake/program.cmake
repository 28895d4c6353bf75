# What the programs have in common.

# Compiles a program's sources several at a time: what command lines, JSON and HTTP bring along costs more than they do.
function(diskcache_compile_together target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${DISKCACHE_UNITY} UNITY_BUILD_BATCH_SIZE 10)
endfunction()

# Whoever builds a program has its manual page, which is written as docs/PROGRAM.1.scd.
function(diskcache_manual program)
  set(source ${PROJECT_SOURCE_DIR}/docs/${program}.1.scd)
  set(manual ${PROJECT_BINARY_DIR}/man/man1/${program}.1)
  find_program(SCDOC scdoc REQUIRED)
  cmake_path(GET manual PARENT_PATH directory)
  file(MAKE_DIRECTORY ${directory})
  add_custom_command(
    OUTPUT ${manual}
    COMMAND sh -c "'${SCDOC}' <'${source}' >'${manual}'"
    DEPENDS ${source}
    VERBATIM)
  add_custom_target(${program}_manual DEPENDS ${manual})
  add_dependencies(${program} ${program}_manual)
endfunction()
