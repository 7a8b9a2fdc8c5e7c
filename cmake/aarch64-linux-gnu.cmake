# Cross toolchain: AArch64 Linux, built on an x86-64 Debian host.
#
# Uses Debian's cross compiler (g++-aarch64-linux-gnu) and the multiarch
# arm64 development packages (libfoo-dev:arm64), whose libraries live in
# /usr/lib/aarch64-linux-gnu and whose headers are the shared ones in
# /usr/include.  Test executables run through qemu-user.
#
# Install everything with: scripts/install-deps.sh aarch64

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(QEL_CROSS_TRIPLE aarch64-linux-gnu)

set(CMAKE_C_COMPILER   ${QEL_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${QEL_CROSS_TRIPLE}-g++)
find_program(QEL_CROSS_AR     ${QEL_CROSS_TRIPLE}-ar)
find_program(QEL_CROSS_RANLIB ${QEL_CROSS_TRIPLE}-ranlib)
find_program(QEL_CROSS_STRIP  ${QEL_CROSS_TRIPLE}-strip)
if(QEL_CROSS_AR)
  set(CMAKE_AR ${QEL_CROSS_AR} CACHE FILEPATH "Archiver")
endif()
if(QEL_CROSS_RANLIB)
  set(CMAKE_RANLIB ${QEL_CROSS_RANLIB} CACHE FILEPATH "Ranlib")
endif()
if(QEL_CROSS_STRIP)
  set(CMAKE_STRIP ${QEL_CROSS_STRIP} CACHE FILEPATH "Strip")
endif()

# Multiarch layout: no separate sysroot, the target's libraries sit beside
# the host's under /usr/lib/<triple>.  With the library architecture set,
# find_library() and find_package() config searches look in
# /usr/lib/aarch64-linux-gnu (and its cmake/ folder) instead of the host's
# /usr/lib/x86_64-linux-gnu.
set(CMAKE_LIBRARY_ARCHITECTURE ${QEL_CROSS_TRIPLE})
set(CMAKE_IGNORE_PATH
  /usr/lib/x86_64-linux-gnu
  /lib/x86_64-linux-gnu
  /usr/lib/x86_64-linux-gnu/cmake
  /usr/include/x86_64-linux-gnu)

# pkg-config must only see the target's .pc files (plus the
# architecture-independent ones).
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${QEL_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# Programs are the host's; libraries, headers and packages the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# Run target executables (tests, gtest discovery) under user-mode
# emulation.  -L points the emulator at the cross toolchain's runtime
# (loader, libc, libstdc++); libraries from the arm64 multiarch packages
# are found by the loader in /usr/lib/aarch64-linux-gnu.
find_program(QEL_QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64)
if(QEL_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${QEL_QEMU_AARCH64};-L;/usr/${QEL_CROSS_TRIPLE}"
      CACHE STRING "Runs target executables on the build host")
endif()
