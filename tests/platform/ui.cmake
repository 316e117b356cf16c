# Events, loops, windows from nibs and the window backends.
kestrun_gtest(platform_ui_tests
  SOURCES ui_events.cpp ui_loops.cpp ui_windows.cpp
  LIBS platform_testing
  TIMEOUT 60)
# The nib tests read the languages of the built bundle.
add_dependencies(platform_ui_tests kestrun_resources)

# Stand-ins for the GTK module in the plug-in tests: one with the module's entry, one without.
foreach(kind with_entry without_entry)
  add_library(plat_test_module_${kind} MODULE plugin_module.cpp)
  target_include_directories(plat_test_module_${kind} PRIVATE ${PROJECT_SOURCE_DIR}/platform/include
                                                              ${PROJECT_SOURCE_DIR}/platform/src)
  target_compile_options(plat_test_module_${kind} PRIVATE -fvisibility=hidden)
  kestrun_warnings(plat_test_module_${kind})
  add_dependencies(platform_ui_tests plat_test_module_${kind})
endforeach()
target_compile_definitions(plat_test_module_with_entry PRIVATE WITH_ENTRY)
target_compile_definitions(platform_ui_tests PRIVATE
  PLAT_TEST_MODULE="$<TARGET_FILE:plat_test_module_with_entry>"
  PLAT_TEST_OTHER_LIBRARY="$<TARGET_FILE:plat_test_module_without_entry>")

# What the launcher's program exports to the GTK module (sanitizer builds run on the shared
# C++ runtime, whose template copies a program exports as well).
if(TARGET Launcher AND TARGET PlatformGtk AND NOT KESTRUN_SANITIZE AND NOT KESTRUN_FUZZ)
  add_test(NAME LauncherExportsOnlyTheLayersCalls
           COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:Launcher> -DNM=${CMAKE_NM}
                   -P ${CMAKE_CURRENT_SOURCE_DIR}/exports.cmake)
endif()
