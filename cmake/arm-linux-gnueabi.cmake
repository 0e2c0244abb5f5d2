# Without a floating-point unit, from ARMv5 on.
set(triple arm-linux-gnueabi)
set(CMAKE_SYSTEM_PROCESSOR armv5tel)
set(emulated_processor -cpu arm926)
include("${CMAKE_CURRENT_LIST_DIR}/arm-linux.cmake")
