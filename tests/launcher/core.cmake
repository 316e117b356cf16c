# The launcher core: queries and completion event, version records, decision and bundle
# location in-process; the built bundle run end to end.
# Its processes named "AutoSetup" and "UpdateWizard" change what every launcher run decides.
kestrun_gtest(core_queries SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/core_queries.cpp LIBS launcher_core LOCKS fixed_paths)
kestrun_gtest(core_records SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/core_records.cpp LIBS launcher_core)
kestrun_gtest(core_e2e SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/core_e2e.cpp LOCKS fixed_paths TIMEOUT 300)
add_dependencies(core_e2e Launcher)
