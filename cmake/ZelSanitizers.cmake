# ZEL_SANITIZER=address builds with ASan and UBSan; ZEL_SANITIZER=thread with TSan.
# Both keep frame pointers so that reports have usable stacks.
if(ZEL_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(ZEL_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT ZEL_SANITIZER STREQUAL "")
  message(FATAL_ERROR "ZEL_SANITIZER must be empty, 'address' or 'thread', not '${ZEL_SANITIZER}'")
endif()
