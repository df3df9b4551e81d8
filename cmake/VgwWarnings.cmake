# Warning flags shared by every target of the project. Third-party headers
# (Open vSwitch, GoogleTest) are included as SYSTEM so they do not trip them.
add_library(vgw_warnings INTERFACE)
target_compile_options(vgw_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wcast-align
  -Wformat=2 -Wimplicit-fallthrough
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  $<$<BOOL:${VGW_WERROR}>:-Werror>)
