# The native (Linux) half of the build.
add_compile_options(-Wall -Wextra -O2)

# Repairs widl's type library (see the tool's header).
add_executable(tlbfix ${CMAKE_SOURCE_DIR}/cmake/tlbfix.cpp)

# Bench provisioning: NVRAM simulation files and flash block images.
add_executable(nvimage ${CMAKE_SOURCE_DIR}/tools/nvimage.cpp)
