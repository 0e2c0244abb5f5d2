set(triple arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
include("${CMAKE_CURRENT_LIST_DIR}/arm-linux.cmake")
