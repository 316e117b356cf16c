# Events, loops, windows from nibs and the window backends.
kestrun_gtest(platform_ui_tests
  SOURCES ui_events.cpp ui_loops.cpp ui_windows.cpp
  LIBS platform_testing
  TIMEOUT 60)
# The nib tests read the languages of the built bundle.
add_dependencies(platform_ui_tests kestrun_resources)
