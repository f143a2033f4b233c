# The native (Linux) half of the build.
add_compile_options(-Wall -Wextra -O2)

# Repairs widl's type library (see the tool's header).
add_executable(tlbfix ${CMAKE_SOURCE_DIR}/cmake/tlbfix.cpp)

# Bench simulators. The block-file access is a library every simulator that
# follows the control's GPIO lines links.
include_directories(${CMAKE_SOURCE_DIR})
add_library(brennock_simgpio STATIC ${CMAKE_SOURCE_DIR}/sim/GpioBlock.cpp)
add_executable(brennock-panel ${CMAKE_SOURCE_DIR}/sim/panel.cpp)
target_link_libraries(brennock-panel PRIVATE brennock_simgpio)
