# Cross compilation for 32-bit ARM hosts like the bus controller, with Debian's compiler and C library for
# `triple`. `emulated_processor` are options of the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triple}-gcc)  # of the test framework only
set(CMAKE_CXX_COMPILER ${triple}-g++)
# Nothing here is linked with what a g++ before 7 has compiled.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
# Runs programs of the target, the tests first of all.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm ${emulated_processor} -L /usr/${triple})
