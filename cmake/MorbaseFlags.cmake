# Compiler and linker flags of the whole tree, in one place.
find_package(Threads REQUIRED)

# The i386 ABI: -m32 must reach the compiler checks too, so it comes in through
# CMAKE_<LANG>_FLAGS (the i386 preset sets them).
if(MORBASE_M32 AND NOT CMAKE_SIZEOF_VOID_P EQUAL 4)
  message(FATAL_ERROR "MORBASE_M32 needs -m32 in CMAKE_C_FLAGS and CMAKE_CXX_FLAGS (use the i386 preset)")
endif()

if(MORBASE_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(MORBASE_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT MORBASE_SANITIZE STREQUAL "")
  message(FATAL_ERROR "MORBASE_SANITIZE must be empty, address or thread")
endif()

# libFuzzer builds: the library's objects carry coverage instrumentation and
# the sanitizers; each fuzz target links the libFuzzer driver.
if(MORBASE_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# Warnings of the library itself: everything we never accept is an error.
set(MORBASE_WARNINGS
  -Wall -Wextra -Werror
  -Wmissing-declarations   # a drifting extern "C" definition becomes a C++ overload otherwise
  -Wshadow -Wpointer-arith -Wcast-align -Wformat=2 -Wundef
  -Wno-format-nonliteral   # the log sinks receive formats by design
)

function(morbase_library_flags target)
  target_compile_options(${target} PRIVATE ${MORBASE_WARNINGS}
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
endfunction()

# Sanitizer link options are global; nothing per target for now.
function(morbase_sanitize target)
endfunction()
