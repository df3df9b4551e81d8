# Finds the Open vSwitch static libraries that scripts/install-deps builds
# into the user's cache.
#
#   VGW_OVS_ROOT (cache variable)  the cache entry to use; by default
#       ${VGW_CACHE_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/vgw}/openvswitch/current
#
# Imported targets:
#   OpenvSwitch::openvswitch  libopenvswitch.a, with the public headers
#                             (openvswitch/*.h) as a SYSTEM include directory
#   OpenvSwitch::ovsdb        libovsdb.a, depends on OpenvSwitch::openvswitch
#
# Variables:
#   OpenvSwitch_FOUND, OpenvSwitch_VERSION
#   OpenvSwitch_INTERNAL_INCLUDE_DIRS  the headers of the libraries' internal
#       API (jsonrpc.h, ovsdb-data.h, ...). They do not compile as C++ and are
#       meant for the C layer in platform/Ovs alone.

if(DEFINED ENV{VGW_CACHE_DIR})
  set(_vgw_ovs_cache "$ENV{VGW_CACHE_DIR}")
elseif(DEFINED ENV{XDG_CACHE_HOME})
  set(_vgw_ovs_cache "$ENV{XDG_CACHE_HOME}/vgw")
else()
  set(_vgw_ovs_cache "$ENV{HOME}/.cache/vgw")
endif()
set(VGW_OVS_ROOT "${_vgw_ovs_cache}/openvswitch/current"
    CACHE PATH "Open vSwitch libraries built by scripts/install-deps")
unset(_vgw_ovs_cache)

# A changed root invalidates what was found under the old one.
if(DEFINED _VGW_OVS_ROOT_SEARCHED AND NOT _VGW_OVS_ROOT_SEARCHED STREQUAL VGW_OVS_ROOT)
  unset(OpenvSwitch_openvswitch_LIBRARY CACHE)
  unset(OpenvSwitch_ovsdb_LIBRARY CACHE)
  unset(OpenvSwitch_INCLUDE_DIR CACHE)
  unset(OpenvSwitch_INTERNAL_ROOT CACHE)
endif()
set(_VGW_OVS_ROOT_SEARCHED "${VGW_OVS_ROOT}" CACHE INTERNAL "")

find_library(OpenvSwitch_openvswitch_LIBRARY NAMES libopenvswitch.a
             PATHS "${VGW_OVS_ROOT}/lib" NO_DEFAULT_PATH)
find_library(OpenvSwitch_ovsdb_LIBRARY NAMES libovsdb.a
             PATHS "${VGW_OVS_ROOT}/lib" NO_DEFAULT_PATH)
find_path(OpenvSwitch_INCLUDE_DIR NAMES openvswitch/json.h
          PATHS "${VGW_OVS_ROOT}/include/public" NO_DEFAULT_PATH)
find_path(OpenvSwitch_INTERNAL_ROOT NAMES config.h lib/jsonrpc.h ovsdb/ovsdb.h
          PATHS "${VGW_OVS_ROOT}/include/internal" NO_DEFAULT_PATH)

if(EXISTS "${VGW_OVS_ROOT}/VERSION")
  file(STRINGS "${VGW_OVS_ROOT}/VERSION" OpenvSwitch_VERSION LIMIT_COUNT 1)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenvSwitch
  REQUIRED_VARS OpenvSwitch_openvswitch_LIBRARY OpenvSwitch_ovsdb_LIBRARY
                OpenvSwitch_INCLUDE_DIR OpenvSwitch_INTERNAL_ROOT
  VERSION_VAR OpenvSwitch_VERSION
  REASON_FAILURE_MESSAGE
    "No Open vSwitch libraries under VGW_OVS_ROOT=${VGW_OVS_ROOT}. Run scripts/install-deps to build them, or point VGW_OVS_ROOT at a cache entry it made.")

if(OpenvSwitch_FOUND AND NOT TARGET OpenvSwitch::openvswitch)
  set(OpenvSwitch_INTERNAL_INCLUDE_DIRS
      "${OpenvSwitch_INTERNAL_ROOT}"
      "${OpenvSwitch_INTERNAL_ROOT}/include"
      "${OpenvSwitch_INTERNAL_ROOT}/lib"
      "${OpenvSwitch_INTERNAL_ROOT}/ovsdb")

  # What the configure step of the build linked against, "-latomic -lm" on a
  # plain system; anything it detected beyond that comes along.
  set(_vgw_ovs_link_libs atomic m)
  if(EXISTS "${VGW_OVS_ROOT}/lib/link-libs.txt")
    file(READ "${VGW_OVS_ROOT}/lib/link-libs.txt" _vgw_ovs_libs_text)
    separate_arguments(_vgw_ovs_libs UNIX_COMMAND "${_vgw_ovs_libs_text}")
    foreach(flag IN LISTS _vgw_ovs_libs)
      string(REGEX REPLACE "^-l" "" lib "${flag}")
      list(APPEND _vgw_ovs_link_libs "${lib}")
    endforeach()
    list(REMOVE_DUPLICATES _vgw_ovs_link_libs)
  endif()

  set(THREADS_PREFER_PTHREAD_FLAG ON)
  find_package(Threads REQUIRED)

  add_library(OpenvSwitch::openvswitch STATIC IMPORTED)
  set_target_properties(OpenvSwitch::openvswitch PROPERTIES
    IMPORTED_LOCATION "${OpenvSwitch_openvswitch_LIBRARY}"
    IMPORTED_LINK_INTERFACE_LANGUAGES C
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${OpenvSwitch_INCLUDE_DIR}"
    INTERFACE_INCLUDE_DIRECTORIES "${OpenvSwitch_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${_vgw_ovs_link_libs};Threads::Threads;rt")

  add_library(OpenvSwitch::ovsdb STATIC IMPORTED)
  set_target_properties(OpenvSwitch::ovsdb PROPERTIES
    IMPORTED_LOCATION "${OpenvSwitch_ovsdb_LIBRARY}"
    IMPORTED_LINK_INTERFACE_LANGUAGES C
    INTERFACE_LINK_LIBRARIES OpenvSwitch::openvswitch)

  unset(_vgw_ovs_link_libs)
  unset(_vgw_ovs_libs)
  unset(_vgw_ovs_libs_text)
endif()

mark_as_advanced(OpenvSwitch_openvswitch_LIBRARY OpenvSwitch_ovsdb_LIBRARY
                 OpenvSwitch_INCLUDE_DIR OpenvSwitch_INTERNAL_ROOT)
