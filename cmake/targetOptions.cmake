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
