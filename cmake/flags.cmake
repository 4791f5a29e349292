# Compiler and linker flags, as interface targets.
#   tdbg_flags          everything that is compiled here: word size, warnings, sanitizers
#   tdbg_library_flags  the library's objects: no exceptions, no RTTI, hidden by default
#   tdbg_library_link   the library: the C library alone, hardened
add_library(tdbg_flags INTERFACE)
target_compile_options(tdbg_flags INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wmissing-declarations -Werror
  -fno-omit-frame-pointer -g)
if(TDBG_M32)
  target_compile_options(tdbg_flags INTERFACE -m32 -msse2 -mfpmath=sse)
  target_link_options(tdbg_flags INTERFACE -m32)
endif()
if(TDBG_SANITIZE)
  target_compile_options(tdbg_flags INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all
    # With these on, comparing a name with null is no constant expression to the compiler, and the
    # checks of the layout tables do not compile. A null pointer that is used faults anyway.
    -fno-sanitize=null,nonnull-attribute,returns-nonnull-attribute)
  target_link_options(tdbg_flags INTERFACE -fsanitize=address,undefined)
endif()

add_library(tdbg_library_flags INTERFACE)
if(TDBG_COVERAGE)
  # Counted without optimisation, or lines and branches are not those of the source.
  target_compile_options(tdbg_library_flags INTERFACE --coverage -fprofile-update=atomic -O0)
  target_link_options(tdbg_flags INTERFACE --coverage)
endif()
if(TDBG_SANITIZE)
  target_compile_options(tdbg_library_flags INTERFACE -O1)  # reports name the lines as they are
endif()
target_compile_definitions(tdbg_library_flags INTERFACE _GNU_SOURCE)
target_compile_options(tdbg_library_flags INTERFACE
  -fPIC -fno-exceptions -fno-rtti -fno-threadsafe-statics
  -fvisibility=hidden -fvisibility-inlines-hidden
  -fstack-protector-strong -fno-plt -fno-strict-aliasing)

# -nodefaultlibs: a forgotten C++ run-time or Python symbol is a link error. libdl and libpthread
# by their run-time names: before 2.34 the symbols live there, since then these are empty shells.
add_library(tdbg_library_link INTERFACE)
target_link_options(tdbg_library_link INTERFACE
  -nodefaultlibs -static-libgcc
  -Wl,-z,relro,-z,now,-z,noexecstack -Wl,--build-id)
target_link_libraries(tdbg_library_link INTERFACE
  -Wl,--no-as-needed -l:libdl.so.2 -l:libpthread.so.0 -lc -lgcc)
if(TDBG_COVERAGE)
  target_link_libraries(tdbg_library_link INTERFACE -lgcov)
endif()
if(NOT TDBG_SANITIZE)
  target_link_options(tdbg_library_link INTERFACE -Wl,--no-undefined)
endif()
