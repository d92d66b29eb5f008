# bpf_program(TARGET SOURCE.bpf.c): compiles programs for the kernel and adds them to the target as a header,
# <SOURCE>.skel.h. bpftool's linker drops what is for debuggers. Needs clang, bpftool and libbpf.
find_program(CLANG_PROGRAM clang REQUIRED)
find_program(BPFTOOL_PROGRAM bpftool HINTS /usr/sbin /sbin REQUIRED)
pkg_check_modules(LIBBPF REQUIRED IMPORTED_TARGET libbpf)

function(bpf_program target source)
  get_filename_component(name ${source} NAME_WE)
  get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR}/${source} DIRECTORY)
  file(GLOB headers CONFIGURE_DEPENDS ${folder}/*.h)
  set(output ${CMAKE_CURRENT_BINARY_DIR}/bpf)
  string(REPLACE "x86_64" "x86" architecture ${CMAKE_SYSTEM_PROCESSOR})
  string(REPLACE "aarch64" "arm64" architecture ${architecture})
  file(MAKE_DIRECTORY ${output})
  add_custom_command(OUTPUT ${output}/${name}.skel.h
    COMMAND ${CLANG_PROGRAM} -target bpf -O2 -g -Wall -Wextra -Wno-unused-parameter -Werror
            -D__TARGET_ARCH_${architecture} -I/usr/include/${CMAKE_LIBRARY_ARCHITECTURE}
            -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -c ${CMAKE_CURRENT_SOURCE_DIR}/${source} -o ${output}/${name}.whole.o
    COMMAND ${BPFTOOL_PROGRAM} gen object ${output}/${name}.o ${output}/${name}.whole.o
    COMMAND ${BPFTOOL_PROGRAM} gen skeleton ${output}/${name}.o name ${name}_bpf > ${output}/${name}.skel.h
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${source} ${headers}
    COMMENT "Compiling ${name} for the kernel" VERBATIM)
  add_custom_target(bpf_${name} DEPENDS ${output}/${name}.skel.h)
  add_dependencies(${target} bpf_${name})
  target_sources(${target} PRIVATE ${output}/${name}.skel.h)
  target_include_directories(${target} SYSTEM PRIVATE ${output})
  target_link_libraries(${target} PRIVATE PkgConfig::LIBBPF)
endfunction()
