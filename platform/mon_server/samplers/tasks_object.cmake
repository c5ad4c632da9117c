# SPDX-License-Identifier: Apache-2.0
# The BPF program, compiled for the kernel's virtual machine and put into the server's binary. One object
# serves all processors of one byte order.
find_library(BPF_LIBRARY bpf)
find_path(BPF_INCLUDE_DIR bpf/bpf_helpers.h)
find_program(BPF_CLANG NAMES clang DOC "The compiler of the BPF program")
find_program(BPF_STRIP NAMES llvm-strip DOC "Takes debugging information from the BPF program")
if(NOT BPF_LIBRARY OR NOT BPF_INCLUDE_DIR OR NOT BPF_CLANG)
  message(FATAL_ERROR "Reading processes by BPF needs libbpf with its headers and clang (Debian: libbpf-dev, "
    "clang). Install them, or set -DZORVA_BPF=OFF: the server then reads processes from files of /proc, "
    "which costs some three times as much.")
endif()

set(source ${CMAKE_CURRENT_SOURCE_DIR}/tasks.bpf.c)
set(object ${CMAKE_CURRENT_BINARY_DIR}/tasks.bpf.o)
set(strip_command)
if(BPF_STRIP)
  set(strip_command COMMAND ${BPF_STRIP} --strip-debug ${object})
endif()
add_custom_command(OUTPUT ${object}
  COMMAND ${BPF_CLANG} -target bpfel -mcpu=v2 -O2 -g -Wall -Wextra -Werror -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
    -I ${CMAKE_CURRENT_SOURCE_DIR}/.. -idirafter ${BPF_INCLUDE_DIR} -MD -MF ${object}.d -c ${source} -o ${object}
  ${strip_command}
  DEPENDS ${source} DEPFILE ${object}.d
  COMMENT "Compiling the BPF program" VERBATIM)

target_sources(mon_samplers PRIVATE task_iterator.cpp)
set_source_files_properties(task_iterator.cpp PROPERTIES
  COMPILE_DEFINITIONS TASKS_OBJECT="${object}" OBJECT_DEPENDS ${object})
target_include_directories(mon_samplers PRIVATE ${BPF_INCLUDE_DIR})
target_link_libraries(mon_samplers PRIVATE ${BPF_LIBRARY})
