# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

if(TARGET softdvb_mux_core)
  add_library(softdvb_mux_test_support STATIC mux_support.cpp)
  target_include_directories(softdvb_mux_test_support PUBLIC "${PROJECT_SOURCE_DIR}/tests")
  target_link_libraries(softdvb_mux_test_support PUBLIC softdvb_mux_core kelvo_test_support PkgConfig::DVBPSI
                                                      PRIVATE fmt::fmt)
  foreach(unit text description tables eit stream fault tool)
    kelvo_add_test(softdvb_mux_${unit}_test mux_${unit}_test.cpp LIBS softdvb_mux_test_support)
  endforeach()
  target_compile_definitions(softdvb_mux_tool_test PRIVATE SOFTDVB_MUX="$<TARGET_FILE:softdvb-mux>"
                                                           SAMPLES="${PROJECT_SOURCE_DIR}/samples")
  add_dependencies(softdvb_mux_tool_test softdvb-mux)
endif()
