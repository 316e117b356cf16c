# Events, loops, windows from nibs and the window backends.
kestrun_gtest(platform_ui_tests
  SOURCES ui_events.cpp ui_loops.cpp ui_windows.cpp
  LIBS platform platform_windows
  TIMEOUT 60)
target_include_directories(platform_ui_tests PRIVATE ${PROJECT_SOURCE_DIR}/platform/src)
# The nib tests read the languages of the built bundle.
add_dependencies(platform_ui_tests kestrun_resources)
