# The native (Linux) half of the build.
add_compile_options(-Wall -Wextra -O2)

# Repairs widl's type library (see the tool's header).
add_executable(tlbfix ${CMAKE_SOURCE_DIR}/cmake/tlbfix.cpp)

# Bench provisioning: NVRAM simulation files and flash block images.
add_executable(nvimage ${CMAKE_SOURCE_DIR}/tools/nvimage.cpp)

# Study-server tools: a .motr sensor recording as CSV.
add_executable(motr2csv ${CMAKE_SOURCE_DIR}/tools/motr2csv.cpp ${CMAKE_SOURCE_DIR}/tools/motr/MotrDecoder.cpp)
target_include_directories(motr2csv PRIVATE ${CMAKE_SOURCE_DIR})

# Study-server tools: a .trem watch data file as the watch's memory and a CSV
# of its parameters.
add_executable(trem2bin ${CMAKE_SOURCE_DIR}/tools/trem2bin.cpp ${CMAKE_SOURCE_DIR}/tools/trem/TremDecoder.cpp)
target_include_directories(trem2bin PRIVATE ${CMAKE_SOURCE_DIR})

# Bench simulators. The block-file access is a library every simulator that
# follows the control's GPIO lines links.
include_directories(${CMAKE_SOURCE_DIR})
add_library(brennock_simgpio STATIC ${CMAKE_SOURCE_DIR}/sim/GpioBlock.cpp)
# Options, time-stamped output and command lines: the bench engineer's side
# every simulator shares.
add_library(brennock_simconsole STATIC ${CMAKE_SOURCE_DIR}/sim/SimConsole.cpp)
target_link_libraries(brennock_simconsole PUBLIC brennock_simgpio)
add_executable(brennock-panel ${CMAKE_SOURCE_DIR}/sim/panel.cpp)
target_link_libraries(brennock-panel PRIVATE brennock_simconsole brennock_simgpio)

# The pseudo-terminals the serial simulators hold, and their paced output.
add_library(brennock_simserial STATIC ${CMAKE_SOURCE_DIR}/sim/Pty.cpp ${CMAKE_SOURCE_DIR}/sim/SerialOut.cpp
  ${CMAKE_SOURCE_DIR}/sim/LineFaults.cpp)
target_link_libraries(brennock_simserial PUBLIC brennock_simconsole)

# The sensor microcontroller: packets and scenario pieces in a library its
# tests link too.
add_library(brennock_simmcu STATIC ${CMAKE_SOURCE_DIR}/sim/McuPacket.cpp
  ${CMAKE_SOURCE_DIR}/sim/McuScript.cpp)
target_link_libraries(brennock_simmcu PUBLIC brennock_simserial)
add_executable(brennock-mcu ${CMAKE_SOURCE_DIR}/sim/mcu.cpp)
target_link_libraries(brennock-mcu PRIVATE brennock_simmcu brennock_simconsole brennock_simgpio)

# The recording watch: its side of the protocol and its scenario language.
add_library(brennock_simwatch STATIC ${CMAKE_SOURCE_DIR}/sim/WatchProtocol.cpp
  ${CMAKE_SOURCE_DIR}/sim/WatchScript.cpp)
target_link_libraries(brennock_simwatch PUBLIC brennock_simserial)
add_executable(brennock-watch ${CMAKE_SOURCE_DIR}/sim/watch.cpp ${CMAKE_SOURCE_DIR}/sim/WatchCommands.cpp)
target_link_libraries(brennock-watch PRIVATE brennock_simwatch brennock_simconsole brennock_simgpio)

# The bench's microphone and speaker: a private sound server it starts.
add_executable(brennock-sound ${CMAKE_SOURCE_DIR}/sim/sound.cpp)
target_link_libraries(brennock-sound PRIVATE brennock_simconsole brennock_simgpio)

# Native tests of the simulators' pieces (run by the Windows half's CTest).
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
file(GLOB SIM_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/sim/*_test.cpp)
add_executable(test_sim ${SIM_TEST_SOURCES})
target_link_libraries(test_sim PRIVATE brennock_simmcu brennock_simwatch brennock_simconsole brennock_simgpio
  GTest::gtest_main)
# The end-to-end tests start the simulators themselves.
target_compile_definitions(test_sim PRIVATE BRENNOCK_MCU_BIN="$<TARGET_FILE:brennock-mcu>"
  BRENNOCK_WATCH_BIN="$<TARGET_FILE:brennock-watch>")
add_dependencies(test_sim brennock-mcu brennock-watch)

# Modem lines for the bench's pseudo-terminal serial ports (preloaded into
# Wine by scripts/winrun; see the source).
add_library(ptymodem SHARED ${CMAKE_SOURCE_DIR}/sim/ptymodem.c)
target_link_libraries(ptymodem PRIVATE dl)

# Study-server tools: a study's keys and its devices' blocks (provision),
# session packages opened and checked (ezip). The pieces are a library the
# tests and the benchmark link too.
find_package(OpenSSL 3 REQUIRED)
find_package(ZLIB REQUIRED)
file(GLOB STUDY_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tools/crypto/*.cpp
  ${CMAKE_SOURCE_DIR}/tools/study/*.cpp ${CMAKE_SOURCE_DIR}/tools/ezip/*.cpp)
add_library(brennock_study STATIC ${STUDY_SOURCES})
target_link_libraries(brennock_study PUBLIC OpenSSL::Crypto ZLIB::ZLIB)
add_executable(provision ${CMAKE_SOURCE_DIR}/tools/provision.cpp)
target_link_libraries(provision PRIVATE brennock_study)
add_executable(ezip ${CMAKE_SOURCE_DIR}/tools/ezip.cpp)
target_link_libraries(ezip PRIVATE brennock_study)

# Native tests of the study tools, with a reference encoder of packages in
# their support (the benchmark makes its packages with it too).
file(GLOB TOOLS_TEST_SUPPORT CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/tools/support/*.cpp)
add_library(brennock_tooltest STATIC ${TOOLS_TEST_SUPPORT})
target_link_libraries(brennock_tooltest PUBLIC brennock_study GTest::gtest)
target_compile_definitions(brennock_tooltest PUBLIC BRENNOCK_PROVISION_BIN="$<TARGET_FILE:provision>"
  BRENNOCK_EZIP_BIN="$<TARGET_FILE:ezip>")
file(GLOB TOOLS_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/tools/*_test.cpp)
# They run the tools' binaries on real files.
add_executable(test_tools ${TOOLS_TEST_SOURCES})
target_link_libraries(test_tools PRIVATE brennock_tooltest GTest::gtest_main)
target_compile_definitions(test_tools PRIVATE MOTR2CSV_BIN="$<TARGET_FILE:motr2csv>"
  TREM2BIN_BIN="$<TARGET_FILE:trem2bin>")
add_dependencies(test_tools provision ezip motr2csv trem2bin)
add_executable(bench_ezip ${CMAKE_SOURCE_DIR}/bench/tools/bench_ezip.cpp)
target_link_libraries(bench_ezip PRIVATE brennock_tooltest)
add_dependencies(bench_ezip provision ezip)
