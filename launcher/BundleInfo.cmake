# The bundle's description, the same for the Linux build and the Mac program built by
# scripts/mac-build. Included by launcher/CMakeLists.txt, or run on its own to write a
# bundle's Contents/Info.plist and Contents/PkgInfo:
#   cmake -DCONTENTS=<bundle>/Contents -P launcher/BundleInfo.cmake
set(LAUNCHER_EXECUTABLE Launcher)
set(LAUNCHER_IDENTIFIER com.kestrun.launcher)
set(LAUNCHER_VERSION 1.0.0)
# The Mac program's architectures, best first, for the Finder's choice on a Mac that runs several.
if(NOT LAUNCHER_ARCHITECTURES)
  set(LAUNCHER_ARCHITECTURES i386)
endif()
set(LAUNCHER_ARCHITECTURE_KEYS "\n\t<key>LSArchitecturePriority</key>\n\t<array>")
foreach(arch ${LAUNCHER_ARCHITECTURES})
  string(APPEND LAUNCHER_ARCHITECTURE_KEYS "\n\t\t<string>${arch}</string>")
endforeach()
string(APPEND LAUNCHER_ARCHITECTURE_KEYS "\n\t</array>")

if(CMAKE_SCRIPT_MODE_FILE)
  if(NOT CONTENTS)
    message(FATAL_ERROR "usage: cmake -DCONTENTS=<bundle>/Contents -P ${CMAKE_CURRENT_LIST_FILE}")
  endif()
  get_filename_component(here ${CMAKE_CURRENT_LIST_FILE} DIRECTORY)
  configure_file(${here}/Info.plist.in ${CONTENTS}/Info.plist @ONLY)
  # The type and creator codes of an application, read by the Finder.
  file(WRITE ${CONTENTS}/PkgInfo "APPL????")
endif()
