# Warnings and sanitizers applied to every target of the project.
add_compile_options(-Wall -Wextra)
if(KAVO_WERROR)
  add_compile_options(-Werror)
endif()
if(KAVO_SANITIZE)
  add_compile_options(-fsanitize=${KAVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KAVO_SANITIZE})
endif()
if(KAVO_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC cannot instrument stand-alone fences and says so; the publication
  # order they enforce is also carried by the atomics around them.
  add_compile_options(-Wno-tsan)
endif()
# Rebuilds of unchanged sources come from the compiler cache where there is one.
find_program(KAVO_CCACHE ccache)
if(KAVO_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${KAVO_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${KAVO_CCACHE})
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
  # At -O3, g++ 12 and later warn of overlapping copies inside std::string's own
  # concatenation (a known false positive), which would stop a Release build.
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
