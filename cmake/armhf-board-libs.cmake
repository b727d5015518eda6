# The virtual board's libraries for the 32-bit ARM build: umockdev, its
# preload and GLib for armhf, unpacked into out/armhf-board-libs by
# scripts/fetch-armhf-board-libs (none of them is installed on the build
# machine; the script says why). Afterwards pkg-config finds them there,
# and the linker finds what libumockdev loads in turn.
#
# At run time the unpacked tree is qemu-arm's library prefix
# (QEMU_LD_PREFIX, set by tests/board-wrapper): the emulated program's
# /usr/lib/arm-linux-gnueabihf/... resolve there first. docs/arm-board.md
# tells the whole path.
set(AVM_ARMHF_BOARD_LIBS ${CMAKE_BINARY_DIR}/out/armhf-board-libs)
execute_process(COMMAND ${CMAKE_SOURCE_DIR}/scripts/fetch-armhf-board-libs ${AVM_ARMHF_BOARD_LIBS}
  RESULT_VARIABLE fetched)
if(NOT fetched EQUAL 0)
  message(FATAL_ERROR "the armhf board libraries are missing (scripts/fetch-armhf-board-libs failed)")
endif()
set(root ${AVM_ARMHF_BOARD_LIBS}/root)
set(AVM_ARMHF_BOARD_LIB_DIRS ${root}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${root}/lib/${CMAKE_LIBRARY_ARCHITECTURE})
set(ENV{PKG_CONFIG_LIBDIR} "${root}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${root}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${root})
