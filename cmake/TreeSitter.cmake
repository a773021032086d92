# The tree-sitter runtime and grammars as one static library, `tree_sitter_grammars`.
# Their sources are fetched by scripts/fetch-tree-sitter into third_party/tree-sitter; without
# them no target is defined and the indexer builds without parsing support.

set(KESTRIX_TREE_SITTER_DIR ${CMAKE_CURRENT_SOURCE_DIR}/third_party/tree-sitter)
set(KESTRIX_TREE_SITTER_RUNTIME ${KESTRIX_TREE_SITTER_DIR}/tree-sitter/vendor/tree-sitter/lib)

# The parsers are most of the indexer's time. With GCC they are built profile-guided: the
# indexer's extractor, linked with an instrumented copy, extracts the sample repository's
# files (cmake/tree-sitter-training.cpp), and the final build uses that profile (a fifth less
# parse time on the Python standard library; code the training did not reach is optimised as
# usual). Sanitizer builds skip it.
option(KESTRIX_TREE_SITTER_PGO "Build the tree-sitter parsers profile-guided (GCC only)" ON)

if(EXISTS ${KESTRIX_TREE_SITTER_RUNTIME}/src/lib.c)
  # Third-party C: optimised even in debug builds, none of our warning flags, and no
  # undefined-behaviour checks (those would report the generated parsers, not our code). The
  # runtime is one translation unit built to be inlined within itself, which position-
  # independent code forbids unless its functions are known not to be interposed (about a
  # tenth of parse time). Its growable arrays are written through a cast to a generic array
  # type, which breaks the strict aliasing rule: once inlined, GCC kept a stale array pointer
  # across a reallocation (a crash in error recovery), so aliasing is left unassumed.
  set(KESTRIX_TREE_SITTER_C_FLAGS -O3 -w -fno-semantic-interposition -fno-strict-aliasing)
  if(KESTRIX_SANITIZE)
    list(APPEND KESTRIX_TREE_SITTER_C_FLAGS -fno-sanitize=undefined)
  endif()
  set(KESTRIX_GRAMMAR_DIRS
    tree-sitter-python/src
    tree-sitter-javascript/src
    tree-sitter-typescript/typescript/src
    tree-sitter-typescript/tsx/src
    tree-sitter-go/src
    tree-sitter-rust/src
    tree-sitter-java/src
    tree-sitter-c/src
    tree-sitter-cpp/src
    tree-sitter-ruby/src)
  foreach(grammar_dir IN LISTS KESTRIX_GRAMMAR_DIRS)
    if(NOT EXISTS ${KESTRIX_TREE_SITTER_DIR}/${grammar_dir}/parser.c)
      message(FATAL_ERROR "tree-sitter grammar missing: ${KESTRIX_TREE_SITTER_DIR}/${grammar_dir}/parser.c (run scripts/fetch-tree-sitter)")
    endif()
  endforeach()

  # Each unit (the runtime, each grammar) with its sources and include directories. Each
  # grammar ships its own tree_sitter/parser.h, so each gets its own include directory.
  set(KESTRIX_TREE_SITTER_UNITS runtime ${KESTRIX_GRAMMAR_DIRS})
  function(kestrix_tree_sitter_unit unit out_sources out_includes)
    if(unit STREQUAL "runtime")
      set(${out_sources} ${KESTRIX_TREE_SITTER_RUNTIME}/src/lib.c PARENT_SCOPE)
      set(${out_includes} ${KESTRIX_TREE_SITTER_RUNTIME}/include ${KESTRIX_TREE_SITTER_RUNTIME}/src PARENT_SCOPE)
    else()
      set(full ${KESTRIX_TREE_SITTER_DIR}/${unit})
      set(sources ${full}/parser.c)
      if(EXISTS ${full}/scanner.c)
        list(APPEND sources ${full}/scanner.c)
      endif()
      set(${out_sources} ${sources} PARENT_SCOPE)
      set(${out_includes} ${full} PARENT_SCOPE)
    endif()
  endfunction()

  # The units as object libraries named <prefix>_<unit>, compiled with `flags`; AFTER: a target
  # that writes the (empty) header STAMP, which every object then includes, so that it is
  # rebuilt when the stamp changes. The objects are listed in `out_objects`.
  function(kestrix_tree_sitter_objects prefix flags out_objects)
    cmake_parse_arguments(PARSE_ARGV 3 arg "" "AFTER;STAMP" "")
    set(objects)
    foreach(unit IN LISTS KESTRIX_TREE_SITTER_UNITS)
      kestrix_tree_sitter_unit(${unit} sources includes)
      string(REGEX REPLACE "[^A-Za-z0-9]+" "_" target "${prefix}_${unit}")
      add_library(${target} OBJECT ${sources})
      target_include_directories(${target} PRIVATE ${includes})
      target_compile_options(${target} PRIVATE ${flags})
      target_compile_definitions(${target} PRIVATE _POSIX_C_SOURCE=200112L _DEFAULT_SOURCE)
      set_target_properties(${target} PROPERTIES C_STANDARD 11 POSITION_INDEPENDENT_CODE ON)
      if(arg_AFTER)
        add_dependencies(${target} ${arg_AFTER})
        target_compile_options(${target} PRIVATE -include ${arg_STAMP})
      endif()
      list(APPEND objects $<TARGET_OBJECTS:${target}>)
    endforeach()
    set(${out_objects} ${objects} PARENT_SCOPE)
  endfunction()

  set(KESTRIX_PGO_ACTIVE OFF)
  if(KESTRIX_TREE_SITTER_PGO AND NOT KESTRIX_SANITIZE AND CMAKE_C_COMPILER_ID STREQUAL "GNU")
    set(KESTRIX_PGO_ACTIVE ON)
  endif()

  if(KESTRIX_PGO_ACTIVE)
    # Both builds of a source name its profile alike (-dumpdir and -dumpbase, so also the ids
    # GCC gives its static functions, which include that name): the instrumented objects write
    # tree-sitter-profile/<name>.gcda and the final ones read it.
    set(KESTRIX_PGO_DIR ${CMAKE_CURRENT_BINARY_DIR}/tree-sitter-profile)
    file(MAKE_DIRECTORY ${KESTRIX_PGO_DIR})
    set(clear_profiles)
    foreach(unit IN LISTS KESTRIX_TREE_SITTER_UNITS)
      kestrix_tree_sitter_unit(${unit} sources includes)
      foreach(source IN LISTS sources)
        get_filename_component(stem ${source} NAME_WE)
        string(REGEX REPLACE "[^A-Za-z0-9]+" "_" name "ts_${unit}_${stem}")
        set_source_files_properties(${source} PROPERTIES COMPILE_OPTIONS "-dumpdir;${KESTRIX_PGO_DIR}/;-dumpbase;${name}")
        list(APPEND clear_profiles COMMAND ${CMAKE_COMMAND} -E rm -f ${KESTRIX_PGO_DIR}/${name}.gcda)
      endforeach()
    endforeach()
    kestrix_tree_sitter_objects(ts_train "${KESTRIX_TREE_SITTER_C_FLAGS};-fprofile-generate;-fprofile-update=single" train_objects)
    # The extractor's sources (the language table, the walkers, the rules, the file
    # classification the C walker asks about headers) compiled once more
    # into the trainer, which links them with the instrumented parsers.
    file(GLOB KESTRIX_EXTRACTOR_SOURCES CONFIGURE_DEPENDS
      ${CMAKE_CURRENT_SOURCE_DIR}/src/indexer/extract*.cpp
      ${CMAKE_CURRENT_SOURCE_DIR}/src/indexer/language*.cpp
      ${CMAKE_CURRENT_SOURCE_DIR}/src/indexer/tree_walker.cpp
      ${CMAKE_CURRENT_SOURCE_DIR}/src/indexer/file_classification.cpp)
    add_executable(tree_sitter_training cmake/tree-sitter-training.cpp ${KESTRIX_EXTRACTOR_SOURCES} ${train_objects})
    target_include_directories(tree_sitter_training PRIVATE ${KESTRIX_TREE_SITTER_RUNTIME}/include)
    target_compile_options(tree_sitter_training PRIVATE ${KESTRIX_WARNINGS})
    target_link_libraries(tree_sitter_training PRIVATE orvane_kestrix)
    target_link_options(tree_sitter_training PRIVATE -fprofile-generate)
    file(GLOB_RECURSE KESTRIX_TRAINING_FILES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/sample_repo/*)
    list(SORT KESTRIX_TRAINING_FILES)
    set(KESTRIX_PGO_STAMP ${CMAKE_CURRENT_BINARY_DIR}/tree-sitter-profile.h)
    # Counts add up across runs, so each training starts from no profile.
    add_custom_command(OUTPUT ${KESTRIX_PGO_STAMP}
      ${clear_profiles}
      COMMAND tree_sitter_training ${KESTRIX_TRAINING_FILES}
      COMMAND ${CMAKE_COMMAND} -E touch ${KESTRIX_PGO_STAMP}
      DEPENDS tree_sitter_training ${KESTRIX_TRAINING_FILES}
      COMMENT "Profiling the tree-sitter parsers on the sample repository"
      VERBATIM)
    add_custom_target(tree_sitter_profile DEPENDS ${KESTRIX_PGO_STAMP})
    kestrix_tree_sitter_objects(ts
      "${KESTRIX_TREE_SITTER_C_FLAGS};-fprofile-use;-fprofile-partial-training;-Wno-missing-profile"
      final_objects AFTER tree_sitter_profile STAMP ${KESTRIX_PGO_STAMP})
  else()
    kestrix_tree_sitter_objects(ts "${KESTRIX_TREE_SITTER_C_FLAGS}" final_objects)
  endif()
  add_library(tree_sitter_grammars STATIC ${final_objects})
  target_include_directories(tree_sitter_grammars PUBLIC ${KESTRIX_TREE_SITTER_RUNTIME}/include)
  set_target_properties(tree_sitter_grammars PROPERTIES LINKER_LANGUAGE C POSITION_INDEPENDENT_CODE ON)
endif()
