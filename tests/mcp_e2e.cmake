# End-to-end tests of kestrix mcp with the official MCP clients and conformance suite, run by
# the pinned Node in tests/e2e/node_modules (installed by scripts/bootstrap). A test reports
# itself skipped, saying why, when those packages are missing.
if(TARGET kestrix AND KESTRIX_WITH_INDEX)
  file(GLOB KESTRIX_E2E_TESTS CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/e2e/*.test.mjs)
  foreach(test_file IN LISTS KESTRIX_E2E_TESTS)
    get_filename_component(name ${test_file} NAME_WE)
    string(REPLACE "." "_" name ${name})
    add_test(NAME mcp_e2e_${name}
      COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/e2e/run.sh ${name}.test.mjs)
    set_tests_properties(mcp_e2e_${name} PROPERTIES
      ENVIRONMENT "KESTRIX_BINARY=$<TARGET_FILE:kestrix>;KESTRIX_SAMPLE_REPO=${CMAKE_CURRENT_SOURCE_DIR}/sample_repo"
      SKIP_RETURN_CODE 77
      TIMEOUT 900
      LABELS e2e)
  endforeach()
  # It times how soon an edit reaches the index: alone, so that other suites do not decide that.
  set_tests_properties(mcp_e2e_indexing PROPERTIES RUN_SERIAL TRUE)
endif()
