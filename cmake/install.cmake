# Installation (cmake --install), in three components that are also the
# three Debian packages of cmake/package.cmake:
#
#   libkolt2     libkolt.so.2.0.1 and the SONAME link libkolt.so.2
#   libkolt-dev  kolt/kolt.h, the link libkolt.so, kolt.pc and the CMake
#                package (find_package(kolt) -> kolt::kolt)
#   kolt-tools   the programs, the simulator's profiles and cards, the
#                identity-card stand-ins, the man page, the example
#                configuration files and the simulator's documentation
#
# Installed files carry no RPATH: under /usr (or /usr/local) the loader
# finds libkolt.so.2 in the multiarch library directory by itself.

# Libraries go to the Debian multiarch directory, lib/x86_64-linux-gnu or
# lib/aarch64-linux-gnu, whatever the prefix. GNUInstallDirs picks it only
# for the prefix /usr of a native build; a cross build would get lib64, and
# the packages are made from trees configured with any prefix. The loader
# of a Debian system looks in /usr/local/lib/<multiarch> as well. Give
# -DCMAKE_INSTALL_LIBDIR=... for another layout.
if(NOT DEFINED CMAKE_INSTALL_LIBDIR AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH "Object code libraries (LIBDIR)")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KOLT_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kolt)
set(KOLT_TOOLS_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/kolt-tools)
set(KOLT_SIM_DATA_DIR ${CMAKE_INSTALL_DATADIR}/kolt/sim)

# ---------------------------------------------------------------------------
# libkolt2 and libkolt-dev: the library, its header and how to find them.
install(TARGETS kolt EXPORT koltTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libkolt2 NAMELINK_COMPONENT libkolt-dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/kolt/kolt.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kolt COMPONENT libkolt-dev)

install(EXPORT koltTargets NAMESPACE kolt::
  DESTINATION ${KOLT_CMAKE_PACKAGE_DIR} COMPONENT libkolt-dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/koltConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cmake-package/koltConfig.cmake
  INSTALL_DESTINATION ${KOLT_CMAKE_PACKAGE_DIR})
# 2.x serves any request for 2.y with y <= x; 1.x and 3.x are other ABIs.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake-package/koltConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake-package/koltConfig.cmake
              ${PROJECT_BINARY_DIR}/cmake-package/koltConfigVersion.cmake
  DESTINATION ${KOLT_CMAKE_PACKAGE_DIR} COMPONENT libkolt-dev)

# kolt.pc finds the prefix from its own directory (${pcfiledir}).
file(RELATIVE_PATH KOLT_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KOLT_PC_TO_PREFIX "${KOLT_PC_TO_PREFIX}")
foreach(kind INCLUDEDIR LIBDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(KOLT_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(KOLT_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/kolt.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/kolt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/kolt.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT libkolt-dev)

# ---------------------------------------------------------------------------
# kolt-tools: the programs built on the library and the simulator.
set(KOLT_INSTALLED_PROGRAMS "")
foreach(program IN ITEMS kolt-cli kolt-sim kolt-issuer kolt-clerkd kolt-clerk)
  # kolt-clerkd is built where libxml2 is found; kolt-cli once tools/ has it.
  if(TARGET ${program})
    list(APPEND KOLT_INSTALLED_PROGRAMS ${program})
  endif()
endforeach()
set(KOLT_STANDIN_TARGETS "")
foreach(standin IN ITEMS wlt idpic)
  if(TARGET ${standin})
    list(APPEND KOLT_STANDIN_TARGETS ${standin})
  endif()
endforeach()
# The build tree's RPATHs (kolt-clerk's points at the build directory) are
# not installed, nor any other.
set_target_properties(kolt ${KOLT_INSTALLED_PROGRAMS} ${KOLT_STANDIN_TARGETS} PROPERTIES INSTALL_RPATH "")
if(KOLT_INSTALLED_PROGRAMS)
  install(TARGETS ${KOLT_INSTALLED_PROGRAMS}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT kolt-tools)
endif()

# The simulator's data and manual. An installed kolt-sim finds the shipped
# profiles by name (--profile stripe_demo), relative to its own directory so
# that the tree can move.
if(TARGET kolt-sim)
  file(RELATIVE_PATH KOLT_SIM_SHIPPED_PROFILES ${CMAKE_INSTALL_FULL_BINDIR}
    ${CMAKE_INSTALL_FULL_DATADIR}/kolt/sim/profiles)
  target_compile_definitions(kolt-sim PRIVATE KOLT_SIM_SHIPPED_PROFILES="${KOLT_SIM_SHIPPED_PROFILES}")
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/sim/profiles/
    DESTINATION ${KOLT_SIM_DATA_DIR}/profiles COMPONENT kolt-tools FILES_MATCHING PATTERN "*.json")
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/sim/cards/
    DESTINATION ${KOLT_SIM_DATA_DIR}/cards COMPONENT kolt-tools)
  # The demonstration clerks of kolt-clerkd and the recorded sessions that
  # kolt-sim --replay plays back.
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/sim/clerks/
    DESTINATION ${KOLT_SIM_DATA_DIR}/clerks COMPONENT kolt-tools FILES_MATCHING PATTERN "*.json")
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/sim/sessions/
    DESTINATION ${KOLT_SIM_DATA_DIR}/sessions COMPONENT kolt-tools FILES_MATCHING PATTERN "*.session")
  install(FILES ${PROJECT_SOURCE_DIR}/sim/README.md
    DESTINATION ${KOLT_TOOLS_DOC_DIR} RENAME kolt-sim.md COMPONENT kolt-tools)
endif()

# The stand-ins of the identity-card reader's closed libraries: an
# application developer copies them into the application's working
# directory, as ./libwlt.so and ./libidpic.so.
if(KOLT_STANDIN_TARGETS)
  install(TARGETS ${KOLT_STANDIN_TARGETS}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/kolt/standins COMPONENT kolt-tools NAMELINK_COMPONENT kolt-tools)
endif()

# The man page of kolt, compressed as Debian installs manual pages.
if(EXISTS ${PROJECT_SOURCE_DIR}/tools/kolt.1)
  find_program(KOLT_GZIP gzip)
  if(KOLT_GZIP)
    set(KOLT_MAN_PAGE ${PROJECT_BINARY_DIR}/man/kolt.1.gz)
    add_custom_command(OUTPUT ${KOLT_MAN_PAGE}
      COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/tools/kolt.1 ${PROJECT_BINARY_DIR}/man/kolt.1
      COMMAND ${KOLT_GZIP} -9nf ${PROJECT_BINARY_DIR}/man/kolt.1
      DEPENDS ${PROJECT_SOURCE_DIR}/tools/kolt.1
      COMMENT "Compressing the man page kolt.1"
      VERBATIM)
    add_custom_target(kolt-man-page ALL DEPENDS ${KOLT_MAN_PAGE})
  else()
    set(KOLT_MAN_PAGE ${PROJECT_SOURCE_DIR}/tools/kolt.1)
  endif()
  install(FILES ${KOLT_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT kolt-tools)
endif()

# The example configuration files.
install(FILES
    ${PROJECT_SOURCE_DIR}/examples/config/README.md
    ${PROJECT_SOURCE_DIR}/examples/config/kolt.ini
    ${PROJECT_SOURCE_DIR}/examples/config/param.ini
    ${PROJECT_SOURCE_DIR}/examples/config/koltt41fp.cfg
    ${PROJECT_SOURCE_DIR}/examples/config/idcread.ext
  DESTINATION ${KOLT_TOOLS_DOC_DIR}/examples COMPONENT kolt-tools)
