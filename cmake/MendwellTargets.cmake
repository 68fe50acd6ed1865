# Targets shared by every folder. Sources are collected per folder so that a new
# file only needs to be dropped in place.

# Services without widgets: platform, locations, processes, privileges, log, files.
add_library(mendwell_core STATIC)
target_include_directories(mendwell_core PUBLIC "${CMAKE_SOURCE_DIR}")
target_link_libraries(mendwell_core PUBLIC Qt6::Core Qt6::DBus Qt6::Network PkgConfig::PLIST
                                           OpenSSL::Crypto LibArchive::LibArchive)
target_compile_definitions(mendwell_core PUBLIC QT_NO_KEYWORDS
                                               MENDWELL_BUNDLE_ID="${MENDWELL_BUNDLE_ID}")
if(TARGET PkgConfig::SYSTEMD)
  target_link_libraries(mendwell_core PUBLIC PkgConfig::SYSTEMD)
endif()
# The in-process authentication agent; its GLib headers stay inside platform/linux.
if(TARGET PkgConfig::POLKIT_AGENT)
  target_link_libraries(mendwell_core PRIVATE PkgConfig::POLKIT_AGENT)
endif()


# Adds every source file of the calling folder (not its sub-folders) to TARGET.
function(mendwell_add_folder_sources target)
  file(GLOB _sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp"
       "${CMAKE_CURRENT_SOURCE_DIR}/*.h")
  target_sources(${target} PRIVATE ${_sources})
endfunction()

# Places an executable inside the bundle's Contents/MacOS folder.
function(mendwell_bundle_executable target)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${MENDWELL_MACOS_DIR}")
endfunction()
