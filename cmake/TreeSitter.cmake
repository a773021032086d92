# The tree-sitter runtime and grammars as one static library, `tree_sitter_grammars`.
# Their sources are fetched by scripts/fetch-tree-sitter into third_party/tree-sitter; without
# them no target is defined and the indexer builds without parsing support.

set(KESTRIX_TREE_SITTER_DIR ${CMAKE_CURRENT_SOURCE_DIR}/third_party/tree-sitter)
set(KESTRIX_TREE_SITTER_RUNTIME ${KESTRIX_TREE_SITTER_DIR}/tree-sitter/vendor/tree-sitter/lib)

if(EXISTS ${KESTRIX_TREE_SITTER_RUNTIME}/src/lib.c)
  add_library(tree_sitter_grammars STATIC ${KESTRIX_TREE_SITTER_RUNTIME}/src/lib.c)
  target_include_directories(tree_sitter_grammars
    PUBLIC ${KESTRIX_TREE_SITTER_RUNTIME}/include
    PRIVATE ${KESTRIX_TREE_SITTER_RUNTIME}/src)
  # Third-party C: optimised even in debug builds, none of our warning flags, and no
  # undefined-behaviour checks (those would report the generated parsers, not our code).
  set(KESTRIX_TREE_SITTER_C_FLAGS -O2 -w)
  if(KESTRIX_SANITIZE)
    list(APPEND KESTRIX_TREE_SITTER_C_FLAGS -fno-sanitize=undefined)
  endif()
  target_compile_options(tree_sitter_grammars PRIVATE ${KESTRIX_TREE_SITTER_C_FLAGS})
  target_compile_definitions(tree_sitter_grammars PRIVATE _POSIX_C_SOURCE=200112L _DEFAULT_SOURCE)
  set_target_properties(tree_sitter_grammars PROPERTIES
    C_STANDARD 11 POSITION_INDEPENDENT_CODE ON)

  # Each grammar ships its own tree_sitter/parser.h, so each is compiled as its own object
  # library with its own include directory, then folded into the static library.
  set(KESTRIX_GRAMMAR_DIRS
    tree-sitter-python/src
    tree-sitter-javascript/src
    tree-sitter-typescript/typescript/src
    tree-sitter-typescript/tsx/src
    tree-sitter-go/src
    tree-sitter-rust/src
    tree-sitter-java/src
    tree-sitter-c/src
    tree-sitter-cpp/src)
  foreach(grammar_dir IN LISTS KESTRIX_GRAMMAR_DIRS)
    set(full ${KESTRIX_TREE_SITTER_DIR}/${grammar_dir})
    if(NOT EXISTS ${full}/parser.c)
      message(FATAL_ERROR "tree-sitter grammar missing: ${full}/parser.c (run scripts/fetch-tree-sitter)")
    endif()
    string(REGEX REPLACE "[^A-Za-z0-9]+" "_" object_name "ts_${grammar_dir}")
    set(grammar_sources ${full}/parser.c)
    if(EXISTS ${full}/scanner.c)
      list(APPEND grammar_sources ${full}/scanner.c)
    endif()
    add_library(${object_name} OBJECT ${grammar_sources})
    target_include_directories(${object_name} PRIVATE ${full})
    target_compile_options(${object_name} PRIVATE ${KESTRIX_TREE_SITTER_C_FLAGS})
    set_target_properties(${object_name} PROPERTIES C_STANDARD 11 POSITION_INDEPENDENT_CODE ON)
    target_sources(tree_sitter_grammars PRIVATE $<TARGET_OBJECTS:${object_name}>)
  endforeach()
endif()
