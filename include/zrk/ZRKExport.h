// ZRK_API marks what the library exports. The library is built with hidden
// visibility, so that its internals and the code it compiles in from other
// projects stay out of the shared library's dynamic symbol table.
#ifndef ZRK_ZRKEXPORT_H
#define ZRK_ZRKEXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define ZRK_API __attribute__((visibility("default")))
#else
#define ZRK_API
#endif

#endif  // ZRK_ZRKEXPORT_H
