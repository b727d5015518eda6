# Cross build for the device's ABI: 32-bit ARM, hard float, with Debian's
# cross compiler and the armhf multiarch packages (scripts/install-deps
# installs both). Libraries come from /usr/lib/arm-linux-gnueabihf, so the
# multiarch root is the whole system: the programs run under qemu-user
# with no library prefix (the armhf loader is /lib/ld-linux-armhf.so.3).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Programs are the build machine's; libraries and headers only the target's
# architecture directories (and the shared include tree).
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

find_program(AVM_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${AVM_QEMU_ARM})

# The device's C library (bionic) has 64-bit inode numbers and directory
# offsets in its stat and dirent records on 32-bit ARM too; glibc has them
# only with large-file support. Without it, readdir and stat under qemu-user
# fail with EOVERFLOW on the build machine's 64-bit filesystems.
string(APPEND CMAKE_C_FLAGS_INIT " -D_FILE_OFFSET_BITS=64")
string(APPEND CMAKE_CXX_FLAGS_INIT " -D_FILE_OFFSET_BITS=64")
