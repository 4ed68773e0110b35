# Debian's cross compiler for RA_TRIPLET over the libraries in build/sysroot-RA_ARCHITECTURE, which
# install_cross_packages (scripts/lib/cross.sh) makes. Test programs run under qemu-user.
get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot-${RA_ARCHITECTURE} ABSOLUTE)
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
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${RA_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
