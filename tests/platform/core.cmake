# Tests of the foundation services: CoreFoundation, Multiprocessing Services, the
# Process Manager, sysctl and CoreGraphics.
pkg_check_modules(CORE_TEST_PNG REQUIRED IMPORTED_TARGET libpng)
kestrun_gtest(platform_core_tests
  SOURCES core_strings.cpp core_bundle.cpp core_semaphore.cpp core_process.cpp core_image.cpp
  LIBS platform PkgConfig::CORE_TEST_PNG)
# PlatProc.h: the process queries pointed at a fixture tree.
target_include_directories(platform_core_tests PRIVATE ${PROJECT_SOURCE_DIR}/platform/src)
