# Warning flags shared by every target of the project.
add_library(swg_warnings INTERFACE)
target_compile_options(swg_warnings INTERFACE -Wall -Wextra -Wshadow)
if(SWG_WERROR)
  target_compile_options(swg_warnings INTERFACE -Werror)
endif()
