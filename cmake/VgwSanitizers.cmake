# -DVGW_SANITIZE=ON builds everything with ASan and UBSan; any report aborts
# the test that caused it.
if(VGW_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
