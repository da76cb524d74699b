# Cross build for 64-bit Arm with Debian's compiler and emulator, used by the preset arm64. The libraries come from a
# folder that scripts/check_arm64.sh fills.
get_filename_component(arm64_dir "${CMAKE_CURRENT_LIST_DIR}/../build/arm64" ABSOLUTE)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_SYSROOT "${arm64_dir}/sysroot")
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L "${CMAKE_SYSROOT}")
# Headers, libraries and packages of this machine are not used. Those that the tests install are in the build folder.
set(CMAKE_FIND_ROOT_PATH "${arm64_dir}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
