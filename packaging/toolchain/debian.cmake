# Debian's cross compiler for RA_ARCHITECTURE, a line of packaging/architectures, over the libraries
# in build/sysroot-RA_ARCHITECTURE, which install_cross_packages (scripts/lib/cross.sh) makes. Test
# programs run under qemu-user.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES RA_ARCHITECTURE)
get_filename_component(root ${CMAKE_CURRENT_LIST_DIR}/../.. ABSOLUTE)
file(STRINGS ${root}/packaging/architectures known REGEX "^[^#]")
set(RA_TRIPLET "")
foreach(line IN LISTS known)
  if(line MATCHES "^${RA_ARCHITECTURE} +([^ ]+) +([^ ]+) +([^ ]+) ")
    set(RA_TRIPLET ${CMAKE_MATCH_1})
    set(RA_EMULATOR ${CMAKE_MATCH_2})
    set(CMAKE_SYSTEM_PROCESSOR ${CMAKE_MATCH_3})
  endif()
endforeach()
if(NOT RA_TRIPLET)
  message(FATAL_ERROR "RA_ARCHITECTURE '${RA_ARCHITECTURE}' is not in packaging/architectures")
endif()

set(CMAKE_SYSROOT ${root}/build/sysroot-${RA_ARCHITECTURE})
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${RA_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${RA_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${RA_TRIPLET})
set(CMAKE_CROSSCOMPILING_EMULATOR ${RA_EMULATOR} -L ${CMAKE_SYSROOT})

# Programs are the host's, everything else is the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/${RA_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
