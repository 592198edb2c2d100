# Writes a C11 program that takes the address of every name of docs/exports.txt after including the public
# headers, so that a listed name the headers do not declare fails the build (an undeclared identifier), and
# one the shared library does not define fails the link.
#   cmake -DLIST=docs/exports.txt -DOUT=exports_declared.c -P exports_declared.cmake
file(STRINGS ${LIST} names)
set(body "/* Made by tests/exports_declared.cmake from docs/exports.txt. */\n#include <stdio.h>\n\n#include \"tandro.h\"\n\n")
string(APPEND body "static const void *const addresses[] = {\n")
foreach(name IN LISTS names)
  string(APPEND body "    (const void *)&${name},\n")
endforeach()
string(APPEND body "};\n\nstatic const char *const names[] = {\n")
foreach(name IN LISTS names)
  string(APPEND body "    \"${name}\",\n")
endforeach()
string(APPEND body "};\n\n")
string(APPEND body [=[
int main(void)
{
    const size_t n = sizeof addresses / sizeof addresses[0];
    if (n != sizeof names / sizeof names[0])
        return 2;
    int bad = 0;
    for (size_t i = 0; i < n; ++i)
        if (!addresses[i]) {
            printf("no address: %s\n", names[i]);
            bad = 1;
        }
    printf("%zu names declared and linked\n", n);
    return bad;
}
]=])
# Only touch the file when it changes, so the program is not rebuilt for nothing.
if(EXISTS ${OUT})
  file(READ ${OUT} old)
  if(old STREQUAL body)
    return()
  endif()
endif()
file(WRITE ${OUT} "${body}")
