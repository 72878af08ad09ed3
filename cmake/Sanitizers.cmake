# SWG_SANITIZE=address,undefined or SWG_SANITIZE=thread instruments the whole build.
if(SWG_SANITIZE)
  set(_swg_san_flags -fsanitize=${SWG_SANITIZE} -fno-omit-frame-pointer -g)
  if(SWG_SANITIZE MATCHES "undefined")
    list(APPEND _swg_san_flags -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${_swg_san_flags})
  add_link_options(-fsanitize=${SWG_SANITIZE})
endif()
