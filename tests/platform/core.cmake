# Foundation services: CoreFoundation, Multiprocessing Services, processes, sysctl, CoreGraphics.
pkg_check_modules(CORE_TEST_PNG REQUIRED IMPORTED_TARGET libpng)
kestrun_gtest(platform_core_tests
  SOURCES core_foundation.cpp core_system.cpp
  LIBS platform platform_windows PkgConfig::CORE_TEST_PNG)
target_include_directories(platform_core_tests PRIVATE ${PROJECT_SOURCE_DIR}/platform/src)
