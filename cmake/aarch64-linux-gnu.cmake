# 64-bit Arm Linux with Debian's cross compiler; the programs it builds (tests, test discovery)
# run on this machine under user-mode emulation. On Arm, char is unsigned, as on a device.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# LeakSanitizer cannot run under the emulator (it stops the process as a debugger would), so a
# sanitized build's programs, test discovery included, run without it. The option goes through
# the emulator's own environment: the runtime reads it from /proc/self/environ, which is the
# emulator's.
set(CMAKE_CROSSCOMPILING_EMULATOR env ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
    qemu-aarch64 -L /usr/aarch64-linux-gnu)
