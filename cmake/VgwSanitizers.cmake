# -DVGW_SANITIZE=ON builds everything with ASan and UBSan; any report aborts
# the test that caused it.
if(VGW_SANITIZE)
  # GCC's flow analysis under the sanitizers reports uninitialized reads in
  # the standard library (std::regex, std::optional) that are not there.
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=all -Wno-maybe-uninitialized)
  add_link_options(-fsanitize=address,undefined)
endif()
