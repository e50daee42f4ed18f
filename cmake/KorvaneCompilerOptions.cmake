# korvane_compiler_options(<target>): how the project's own code is compiled.
function(korvane_compiler_options target)
  target_compile_options(
    ${target}
    PRIVATE
      # Source paths in traces are relative to the project, and the bytes the same, wherever it is built.
      -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
      -fdebug-prefix-map=${PROJECT_SOURCE_DIR}=.
      -fdebug-prefix-map=${PROJECT_BINARY_DIR}=.
      # It takes the shorter of two prefixes, and would so name a folder inside the sources.
      $<$<CXX_COMPILER_ID:Clang>:-fdebug-compilation-dir=.>
      -Wall
      -Wextra
      -Wpedantic
      -Wconversion
      -Wshadow
      -Wformat=2
      -Wcast-align
      -Wundef
      -Wvla
      $<$<COMPILE_LANGUAGE:CXX>:-Wsign-conversion>
      $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
      $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
      $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
      $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes>
      $<$<CXX_COMPILER_ID:GNU>:-Wlogical-op>
      $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
      $<$<BOOL:${KORVANE_WARNINGS_AS_ERRORS}>:-Werror>)
endfunction()
