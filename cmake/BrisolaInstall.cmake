# cmake --install: the programs, the core library with its public headers, a CMake package
# (find_package(Brisola) gives Brisola::core), a pkg-config file, man pages and bash
# completion generated from the programs' own help, and systemd user units, where Debian puts
# them.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS brisola-audio-service brisolactl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(BRISOLA_HAVE_PIPEWIRE)
  # The helpers lie beside the service, where its lookup finds them.
  install(TARGETS brisola-virtual-devices brisola-monitor-pipewire brisola-hardware-source-pipewire
                  brisola-process-tap-pipewire
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# The core library is static, so its own dependencies travel with it.
set_target_properties(brisola_core PROPERTIES EXPORT_NAME core)
set_target_properties(brisola_runtime_support PROPERTIES EXPORT_NAME runtime_support)
install(TARGETS brisola_core brisola_runtime_support EXPORT BrisolaTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/core/include/brisola
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
set(brisola_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Brisola)
install(EXPORT BrisolaTargets NAMESPACE Brisola:: DESTINATION ${brisola_cmake_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/BrisolaConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/BrisolaConfig.cmake
                              INSTALL_DESTINATION ${brisola_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/BrisolaConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/BrisolaConfig.cmake
              ${PROJECT_BINARY_DIR}/BrisolaConfigVersion.cmake
        DESTINATION ${brisola_cmake_dir})

set(brisola_pc_requires "icu-uc icu-i18n uuid simdjson")
set(brisola_pc_cflags "")
if(BRISOLA_HAVE_PIPEWIRE)
  string(APPEND brisola_pc_requires " libpipewire-0.3")
  set(brisola_pc_cflags " -DBRISOLA_HAVE_PIPEWIRE")
endif()
# Relative to the file, so the installed copy works under any prefix given to cmake --install.
file(RELATIVE_PATH brisola_pc_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/brisola.pc.in ${PROJECT_BINARY_DIR}/brisola.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/brisola.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Generated from --help, so they cannot drift from the programs.
set(brisola_docs ${PROJECT_BINARY_DIR}/docs)
add_custom_command(
  OUTPUT ${brisola_docs}/brisolactl.1 ${brisola_docs}/brisola-audio-service.1
         ${brisola_docs}/brisolactl.bash
  COMMAND ${CMAKE_COMMAND} -E make_directory ${brisola_docs}
  COMMAND ${PROJECT_SOURCE_DIR}/scripts/gen-docs.sh man $<TARGET_FILE:brisolactl>
          ${PROJECT_VERSION} > ${brisola_docs}/brisolactl.1
  COMMAND ${PROJECT_SOURCE_DIR}/scripts/gen-docs.sh man $<TARGET_FILE:brisola-audio-service>
          ${PROJECT_VERSION} > ${brisola_docs}/brisola-audio-service.1
  COMMAND ${PROJECT_SOURCE_DIR}/scripts/gen-docs.sh completion $<TARGET_FILE:brisolactl>
          > ${brisola_docs}/brisolactl.bash
  DEPENDS brisolactl brisola-audio-service ${PROJECT_SOURCE_DIR}/scripts/gen-docs.sh
  COMMENT "Man pages and bash completion from the programs' help")
add_custom_target(brisola-docs ALL DEPENDS ${brisola_docs}/brisolactl.1
                                           ${brisola_docs}/brisola-audio-service.1
                                           ${brisola_docs}/brisolactl.bash)
install(FILES ${brisola_docs}/brisolactl.1 ${brisola_docs}/brisola-audio-service.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${brisola_docs}/brisolactl.bash RENAME brisolactl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

set(brisola_units brisola-audio-service)
if(BRISOLA_HAVE_PIPEWIRE)
  list(APPEND brisola_units brisola-virtual-devices)
endif()
# Made at install time, so that ExecStart names the prefix given to cmake --install.
foreach(unit ${brisola_units})
  install(CODE "
    set(CMAKE_INSTALL_FULL_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    configure_file(${PROJECT_SOURCE_DIR}/dist/systemd/${unit}.service.in
                   ${PROJECT_BINARY_DIR}/systemd/${unit}.service @ONLY)")
  install(FILES ${PROJECT_BINARY_DIR}/systemd/${unit}.service DESTINATION lib/systemd/user)
endforeach()
