# Foundation services: CoreFoundation, Multiprocessing Services, processes, sysctl, CoreGraphics.
kestrun_gtest(platform_core_tests
  SOURCES core_foundation.cpp core_system.cpp
  LIBS platform_testing)
# The picture tests write their PNGs with the libpng the layer carries.
target_include_directories(platform_core_tests SYSTEM PRIVATE ${PLAT_PNG_INCLUDE})
