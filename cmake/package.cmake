# Debian packages made by CPack from the components of cmake/install.cmake:
#
#   libkolt2     the shared library (Section libs)
#   libkolt-dev  header, libkolt.so, kolt.pc, CMake package (Section libdevel)
#   kolt-tools   programs, simulator data, stand-ins, man page (Section utils)
#
# scripts/package.sh builds them for amd64 or, cross-compiled, arm64:
#   cpack --config <build>/CPackConfig.cmake -B <output directory>
# The packages install under /usr whatever CMAKE_INSTALL_PREFIX the build
# tree has; their libraries go to /usr/lib/<multiarch>.

# The Debian architecture of the target: dpkg's own for a native build;
# for a cross build, dpkg-architecture's name for the target triple, or the
# processor's usual name when dpkg-architecture cannot tell.
set(KOLT_DEB_ARCH "")
if(CMAKE_CROSSCOMPILING)
  find_program(KOLT_DPKG_ARCHITECTURE dpkg-architecture)
  if(KOLT_DPKG_ARCHITECTURE AND CMAKE_LIBRARY_ARCHITECTURE)
    execute_process(COMMAND ${KOLT_DPKG_ARCHITECTURE} -t ${CMAKE_LIBRARY_ARCHITECTURE} -q DEB_HOST_ARCH
      OUTPUT_VARIABLE KOLT_DEB_ARCH ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
  endif()
  if(NOT KOLT_DEB_ARCH)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
      set(KOLT_DEB_ARCH arm64)
    elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64)$")
      set(KOLT_DEB_ARCH amd64)
    elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
      set(KOLT_DEB_ARCH armhf)
    elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^i.86$")
      set(KOLT_DEB_ARCH i386)
    else()
      set(KOLT_DEB_ARCH ${CMAKE_SYSTEM_PROCESSOR})
    endif()
  endif()
else()
  find_program(KOLT_DPKG dpkg)
  if(KOLT_DPKG)
    execute_process(COMMAND ${KOLT_DPKG} --print-architecture
      OUTPUT_VARIABLE KOLT_DEB_ARCH ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
  endif()
endif()

set(KOLT_DEB_RELEASE 1)
set(KOLT_DEB_VERSION ${PROJECT_VERSION}-${KOLT_DEB_RELEASE})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kolt)
set(CPACK_PACKAGE_VENDOR "KOLT")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "KOLT driver team <driver@kolt.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libkolt2 libkolt-dev kolt-tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KOLT_DEB_RELEASE})
if(KOLT_DEB_ARCH)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KOLT_DEB_ARCH})
endif()
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "KOLT driver team <driver@kolt.invalid>")
set(CPACK_DEBIAN_PACKAGE_SOURCE kolt)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# Depends: on the libraries the ELF files need, with the versions their
# symbols require (dpkg-shlibdeps). libkolt.so.2, which kolt-tools' programs
# need, is in no installed package: it is looked for in the build tree and
# its dependency comes from the component dependency below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
# A component dependency becomes "Depends: <package> (= <version>-<release>)".
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

# The shlibs control file of libkolt2, "libkolt 2 libkolt2 (>= 2.0.1-1)":
# a program built against this version asks for it or a later one. It is
# written here rather than by CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS, which
# CMake 3.25 applies to every component at once (kolt-tools' stand-ins have
# no versioned SONAME), from the SONAME set in CMakeLists.txt.
string(REGEX REPLACE "^(.*)\\.so\\.([^.]+)$" "\\1 \\2" KOLT_SHLIBS_LIBRARY "${KOLT_SONAME}")
set(KOLT_SHLIBS_POLICY ">=")

# libkolt2 ------------------------------------------------------------------
set(CPACK_COMPONENT_LIBKOLT2_DISPLAY_NAME "libkolt shared library")
set(CPACK_DEBIAN_LIBKOLT2_PACKAGE_NAME libkolt2)
set(CPACK_DEBIAN_LIBKOLT2_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBKOLT2_DESCRIPTION
"driver library of the KOLT KL560T41 bank-counter peripheral
libkolt drives the KOLT KL560T41, a bank-counter multi-function peripheral
(contact and contactless IC-card reader with PSAM slots, magnetic-stripe
reader and writer, resident-identity-card reader, fingerprint sensor, LEDs
and buzzer), over a local serial line or the auxiliary port of a teller
terminal. Teller applications call its C functions.
.
This package contains the shared library libkolt.so.2.")
# Its control files: shlibs (above) and the trigger that brings the
# loader's cache up to date (CPack's own postinst and postrm also run
# ldconfig).
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/deb/libkolt2/shlibs
  CONTENT "${KOLT_SHLIBS_LIBRARY} libkolt2 (${KOLT_SHLIBS_POLICY} ${KOLT_DEB_VERSION})\n")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/deb/libkolt2/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBKOLT2_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/deb/libkolt2/shlibs ${PROJECT_BINARY_DIR}/deb/libkolt2/triggers)
set(CPACK_DEBIAN_LIBKOLT2_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# libkolt-dev ---------------------------------------------------------------
set(CPACK_COMPONENT_LIBKOLT-DEV_DISPLAY_NAME "libkolt development files")
set(CPACK_COMPONENT_LIBKOLT-DEV_DEPENDS libkolt2)
set(CPACK_DEBIAN_LIBKOLT-DEV_PACKAGE_NAME libkolt-dev)
set(CPACK_DEBIAN_LIBKOLT-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBKOLT-DEV_DESCRIPTION
"development files of libkolt, the KOLT KL560T41 driver library
libkolt drives the KOLT KL560T41 bank-counter peripheral for teller
applications.
.
This package contains the C header kolt/kolt.h, the link libkolt.so, the
pkg-config file kolt.pc and the CMake package (find_package(kolt) gives
the imported target kolt::kolt).")

# kolt-tools ----------------------------------------------------------------
set(CPACK_COMPONENT_KOLT-TOOLS_DISPLAY_NAME "KOLT KL560T41 tools and simulator")
set(CPACK_COMPONENT_KOLT-TOOLS_DEPENDS libkolt2)
set(CPACK_DEBIAN_KOLT-TOOLS_PACKAGE_NAME kolt-tools)
set(CPACK_DEBIAN_KOLT-TOOLS_PACKAGE_SECTION utils)
set(KOLT_TOOLS_PROGRAMS "")
if(TARGET kolt-cli)
  string(APPEND KOLT_TOOLS_PROGRAMS "\n - kolt: the command-line tool of the peripheral")
endif()
string(APPEND KOLT_TOOLS_PROGRAMS "
 - kolt-sim: a simulated KL560T41 on a pseudo-terminal, with its device
   profiles and simulated cards
 - kolt-issuer: a simulated issuer host for online transactions")
if(TARGET kolt-clerkd)
  string(APPEND KOLT_TOOLS_PROGRAMS "\n - kolt-clerkd: a clerk verification server")
endif()
string(APPEND KOLT_TOOLS_PROGRAMS "\n - kolt-clerk: the line test of the clerk verification service")
set(CPACK_DEBIAN_KOLT-TOOLS_DESCRIPTION
"tools and device simulator for the KOLT KL560T41 driver library
Programs for developing and testing teller applications on libkolt
without the hardware:${KOLT_TOOLS_PROGRAMS}
.
Also the stand-ins of the two identity-card libraries the reader loads
(libwlt.so, libidpic.so), the example configuration files and the
simulator's manual.")

include(CPack)

# ---------------------------------------------------------------------------
# What the packages of this build tree must hold, for the checks of
# tests/package/check_debs.sh (the ctest test below, scripts/package.sh
# and scripts/test-aarch64.sh): which optional programs were built.
if(CMAKE_BUILD_TYPE)
  string(TOLOWER "${CMAKE_BUILD_TYPE}" KOLT_EXPORT_CONFIG)
else()
  set(KOLT_EXPORT_CONFIG noconfig)
endif()
set(KOLT_HAS_CLI 0)
set(KOLT_HAS_CLERKD 0)
set(KOLT_HAS_MAN 0)
if(TARGET kolt-cli)
  set(KOLT_HAS_CLI 1)
endif()
if(TARGET kolt-clerkd)
  set(KOLT_HAS_CLERKD 1)
endif()
if(EXISTS ${PROJECT_SOURCE_DIR}/tools/kolt.1)
  set(KOLT_HAS_MAN 1)
endif()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/deb/package-check.txt CONTENT
"version=${KOLT_DEB_VERSION}
soname=${KOLT_SONAME}
library=libkolt.so.${PROJECT_VERSION}
config=${KOLT_EXPORT_CONFIG}
source=${PROJECT_SOURCE_DIR}
cli=${KOLT_HAS_CLI}
clerkd=${KOLT_HAS_CLERKD}
man=${KOLT_HAS_MAN}
")

# The packages of the native build, made, checked, unpacked and used by a
# small application built with pkg-config and with find_package, against
# the simulator. Not in the sanitizer build (its objects need the
# sanitizer run-time) nor in a cross build (scripts/test-aarch64.sh checks
# the packages of that one).
if(KOLT_TESTS AND NOT KOLT_SANITIZE AND NOT CMAKE_CROSSCOMPILING AND TARGET kolt-sim)
  find_program(KOLT_DPKG_DEB dpkg-deb)
  if(KOLT_DPKG_DEB)
    add_test(NAME debian_packages
      COMMAND bash ${PROJECT_SOURCE_DIR}/tests/package/package_test.sh
        ${PROJECT_BINARY_DIR} $<TARGET_FILE:kolt-sim> ${CMAKE_CPACK_COMMAND} ${CMAKE_COMMAND} ${CMAKE_C_COMPILER})
    set_tests_properties(debian_packages PROPERTIES TIMEOUT 240 LABELS package)
  endif()
endif()
