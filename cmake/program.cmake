# How the programs are built beyond what targetOptions.cmake says.

# Compiles a program's sources several at a time: what command lines, JSON and HTTP bring along costs more than they do.
function(diskcache_compile_together target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${DISKCACHE_UNITY} UNITY_BUILD_BATCH_SIZE 10)
  if(DISKCACHE_UNITY)  # gcc takes the sources for headers, in which what only they can see would be a mistake
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  endif()
endfunction()
