# Installation, dialogs, progress window and the complete launcher.

# In-process: the scripted window backend, and system wrapped so that command lines are
# recorded instead of run. The dashboard cases create the staged package, a fixed path.
kestrun_gtest(install_inprocess_test
  SOURCES install_system_wrap.cpp install_commands.cpp install_boxes.cpp install_progress.cpp
  LIBS launcher_core
  LOCKS fixed_paths
  TIMEOUT 60)
target_include_directories(install_inprocess_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_options(install_inprocess_test PRIVATE -Wl,--wrap=system)

# End to end: the built bundle in temporary disc folders, with the open command on PATH.
kestrun_gtest(install_e2e_test
  SOURCES install_e2e.cpp
  LOCKS fixed_paths
  TIMEOUT 90)
target_include_directories(install_e2e_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(install_e2e_test PRIVATE util)
target_compile_definitions(install_e2e_test PRIVATE
  KESTRUN_BUNDLE_DIR="${KESTRUN_BUNDLE_DIR}" KESTRUN_BIN_DIR="${KESTRUN_BIN_DIR}")
add_dependencies(install_e2e_test Launcher open kestrun_resources)
