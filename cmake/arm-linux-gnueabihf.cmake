# Cross compilation for 32-bit ARM hosts like the bus controller, with Debian's compiler and C library.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)  # of the test framework only
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Nothing here is linked with what a g++ before 7 has compiled.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
# Runs programs of the target, the tests first of all.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
