# Events, loops, windows from nibs and the window backends.

# A stand-in for the gtk module, for the tests of how the backend is chosen.
add_library(ui_fake_gtk MODULE ${CMAKE_CURRENT_SOURCE_DIR}/ui_fake_gtk_module.cpp)
target_include_directories(ui_fake_gtk PRIVATE ${PROJECT_SOURCE_DIR}/platform/include
                                               ${PROJECT_SOURCE_DIR}/platform/src)
kestrun_warnings(ui_fake_gtk)

kestrun_gtest(platform_ui_tests
  SOURCES ui_events.cpp ui_loops.cpp ui_nib.cpp ui_backends.cpp
  LIBS platform
  TIMEOUT 60)
target_include_directories(platform_ui_tests PRIVATE ${PROJECT_SOURCE_DIR}/platform/src)
target_compile_definitions(platform_ui_tests PRIVATE UI_FAKE_GTK_MODULE="$<TARGET_FILE:ui_fake_gtk>")
add_dependencies(platform_ui_tests ui_fake_gtk)
