# What an installation holds, by component: "engine" and "client" are the libraries, "tools" the programs with their
# manuals, "development" the public headers and what CMake and pkg-config need to find all that. Every path in it is
# relative, so that it may be moved.
include(CMakePackageConfigHelpers)

set(publicHeaders
  client/blockTrailer.h
  client/objectCache.h
  client/objectCacheMetrics.h
  diskcache/diskcache.h
  diskcache/diskcacheTypes.h
  diskcache/segmentFormat.h
  diskcache/segmentGate.h
  support/atomicCounter.h
  support/config.h
  support/error.h
  support/export.h
  support/lock.h
  support/log.h
  support/perfCounters.h
  support/threadAnnotations.h)
set(headerDir ${CMAKE_INSTALL_INCLUDEDIR}/diskcache-${PROJECT_VERSION_MAJOR})
foreach(header IN LISTS publicHeaders)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${headerDir}/${folder} COMPONENT development)
endforeach()

# Who only builds the libraries needs nothing to write manuals with, and goes without.
find_program(SCDOC scdoc)
if(SCDOC)
  foreach(page IN ITEMS DiskCache.3 ObjectCache.3)
    diskcache_manual(${page} development)
  endforeach()
endif()

set_target_properties(diskcache-client PROPERTIES INSTALL_RPATH "$ORIGIN")
function(install_library library component)
  install(TARGETS ${library} EXPORT diskcacheTargets
    LIBRARY COMPONENT ${component} NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development)
endfunction()
install_library(diskcache engine)
install_library(diskcache-client client)
function(install_program program)
  file(RELATIVE_PATH binToLib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${binToLib}")
  install(TARGETS ${program} COMPONENT tools)
endfunction()
if(DISKCACHE_BUILD_TOOLS)
  install_program(diskcachectl)
  install(FILES tools/diskcachectl/completion.bash RENAME diskcachectl
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
  install(FILES tools/diskcachectl/completion.zsh RENAME _diskcachectl
          DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT tools)
  install(FILES tools/diskcachectl/completion.fish RENAME diskcachectl.fish
          DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)
endif()
if(DISKCACHE_BUILD_SERVER)
  install_program(diskcached)
  install(FILES packaging/diskcached.service DESTINATION lib/systemd/system COMPONENT tools)
endif()

set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/diskcache)
configure_package_config_file(cmake/diskcacheConfig.cmake.in ${PROJECT_BINARY_DIR}/diskcacheConfig.cmake
                              INSTALL_DESTINATION ${packageDir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/diskcacheConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT diskcacheTargets NAMESPACE diskcache:: DESTINATION ${packageDir} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/diskcacheConfig.cmake ${PROJECT_BINARY_DIR}/diskcacheConfigVersion.cmake
        DESTINATION ${packageDir} COMPONENT development)

file(RELATIVE_PATH pkgconfigToPrefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pkgconfigToPrefix ${pkgconfigToPrefix})
foreach(name IN ITEMS diskcache diskcache-client)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endforeach()
