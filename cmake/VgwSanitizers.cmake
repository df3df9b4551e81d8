# -DVGW_SANITIZE=ON builds everything with ASan and UBSan; any report aborts
# the test that caused it.
#
# The sanitized build exists to run the tests: -O1 keeps the reports precise
# and compiles in half the time of -O2, and line tables are all that a
# report's stack needs (these come after the build type's flags).
# -Wno-maybe-uninitialized: GCC's flow analysis under the sanitizers reports
# uninitialized reads in the standard library (std::regex, std::optional)
# that are not there.
if(VGW_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=all -Wno-maybe-uninitialized
                      -O1 -g1)
  add_link_options(-fsanitize=address,undefined)
endif()
