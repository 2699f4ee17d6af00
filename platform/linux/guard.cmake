# The classifier, compiled for both byte orders when clang is there, else as it stands in bpf/, and the library
# that has it in it. Line information is kept for the verifier's complaints, relative to this directory. Version 2
# of the instructions and stack slots of their own: without CAP_PERFMON kernel 6.1 takes a write into a part of a
# stack word that held a register for an attempt to forge a pointer.
find_program(BPF_CLANG NAMES clang clang-19 clang-18 clang-17 clang-16 clang-15 clang-14)
find_program(BPF_STRIP NAMES llvm-strip llvm-strip-19 llvm-strip-18 llvm-strip-17 llvm-strip-16 llvm-strip-15 llvm-strip-14)
set(guard_objects "")
foreach(order el eb)
  set(object ${CMAKE_CURRENT_BINARY_DIR}/guard.bpf${order}.o)
  list(APPEND guard_objects ${object})
  if(BPF_CLANG AND BPF_STRIP)
    add_custom_command(OUTPUT ${object}
      COMMAND ${BPF_CLANG} -target bpf${order} -mcpu=v2 -mllvm -no-stack-coloring -mllvm -no-stack-slot-sharing
        -O2 -g -Wall -Wextra -Wshadow -Werror
        -ffile-prefix-map=${CMAKE_CURRENT_SOURCE_DIR}/= -I/usr/include/${CMAKE_LIBRARY_ARCHITECTURE}
        -c ${CMAKE_CURRENT_SOURCE_DIR}/guard.bpf.c -o ${object}
      COMMAND ${BPF_STRIP} -g ${object}
      DEPENDS guard.bpf.c guard_frame.bpf.h guard_source.bpf.h guard_maps.h VERBATIM)
  else()
    add_custom_command(OUTPUT ${object}
      COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_CURRENT_SOURCE_DIR}/bpf/guard.bpf${order}.o ${object}
      DEPENDS bpf/guard.bpf${order}.o VERBATIM)
  endif()
endforeach()
if(BPF_CLANG AND BPF_STRIP)
  add_custom_target(guard_objects
    COMMAND ${CMAKE_COMMAND} -DBUILT=${CMAKE_CURRENT_BINARY_DIR} -P ${CMAKE_CURRENT_SOURCE_DIR}/bpf/objects.cmake
    DEPENDS ${guard_objects})
endif()

# Without the switch model, for dhcpsnoopctl (trap_release, guard_config) and for tests that put a recorder in its place.
add_library(dhcpsnoop_trap STATIC guard.cpp guard_bindings.cpp guard_config.cpp guard_filter.cpp guard_object.cpp guard_pins.cpp
  trap_release.cpp)
target_include_directories(dhcpsnoop_trap PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(dhcpsnoop_trap PUBLIC PkgConfig::LIBMNL PkgConfig::LIBBPF PRIVATE dhcpsnoop_core_flags)
target_compile_definitions(dhcpsnoop_trap PRIVATE GUARD_OBJECT_DIR="${CMAKE_CURRENT_BINARY_DIR}")
set_source_files_properties(guard_object.cpp PROPERTIES OBJECT_DEPENDS "${guard_objects}")
