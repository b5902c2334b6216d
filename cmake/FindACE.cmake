# Finds ACE (the ADAPTIVE Communication Environment) and defines the imported
# target ACE::ACE. pkg-config is tried first; a plain header/library search
# follows for installations without a .pc file.
include(FindPackageHandleStandardArgs)
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(PC_ACE QUIET ACE)
endif()

find_path(ACE_INCLUDE_DIR NAMES ace/ACE.h HINTS ${PC_ACE_INCLUDE_DIRS})
find_library(ACE_LIBRARY NAMES ACE HINTS ${PC_ACE_LIBRARY_DIRS})
set(ACE_VERSION "${PC_ACE_VERSION}")

find_package_handle_standard_args(ACE
  REQUIRED_VARS ACE_LIBRARY ACE_INCLUDE_DIR
  VERSION_VAR ACE_VERSION)

if(ACE_FOUND AND NOT TARGET ACE::ACE)
  find_package(Threads REQUIRED)
  add_library(ACE::ACE UNKNOWN IMPORTED)
  set_target_properties(ACE::ACE PROPERTIES
    IMPORTED_LOCATION "${ACE_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${ACE_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "Threads::Threads;${CMAKE_DL_LIBS};rt")
endif()
mark_as_advanced(ACE_INCLUDE_DIR ACE_LIBRARY)
