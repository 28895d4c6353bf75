# How every target of this project is compiled.
function(diskcache_target_options target)
  target_compile_features(${target} PRIVATE cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  # Error locations name files relative to the project, wherever it was built.
  target_compile_options(${target} PRIVATE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

  if(DISKCACHE_DEVELOPER)
    target_compile_options(${target} PRIVATE
      -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Werror
      "$<$<CXX_COMPILER_ID:Clang>:-Wthread-safety;-Wthread-safety-beta>")
  endif()
  if(DISKCACHE_SANITIZE)
    set(sanitizers -fsanitize=${DISKCACHE_SANITIZE} -fno-sanitize-recover=all)
    # gcc mistakes its own instrumentation for reads of values that were never set; the other builds warn.
    target_compile_options(${target} PRIVATE ${sanitizers} -fno-omit-frame-pointer
      $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_link_options(${target} PRIVATE ${sanitizers})
  endif()
endfunction()

# How the libraries are linked: nothing missing, nothing of others shown.
function(diskcache_link_options target)
  set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  target_link_options(${target} PRIVATE LINKER:--version-script=${exports})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${exports})
  if(NOT DISKCACHE_SANITIZE)  # a sanitizer's symbols come with the executable
    target_link_options(${target} PRIVATE LINKER:-z,defs)
  endif()
endfunction()
