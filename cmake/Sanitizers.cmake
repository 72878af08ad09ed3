# SWG_SANITIZE=address,undefined or SWG_SANITIZE=thread instruments the whole build.
if(SWG_SANITIZE)
  set(_swg_san_flags -fsanitize=${SWG_SANITIZE} -fno-omit-frame-pointer -g)
  if(SWG_SANITIZE MATCHES "undefined")
    list(APPEND _swg_san_flags -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${_swg_san_flags})
  add_link_options(-fsanitize=${SWG_SANITIZE})
endif()

# The fuzz build instruments the libraries too, so that libFuzzer's coverage reaches the
# parsers under test; only the fuzz targets link libFuzzer itself (Fuzzing.cmake).
if(SWG_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=address,undefined)
endif()
