// Symbol visibility for the shared library: the library is built with
// hidden visibility, and every exported class and free function carries
// COM_EXPORT.
#ifndef COM_COMMON_BASE_COMEXPORT_H_
#define COM_COMMON_BASE_COMEXPORT_H_

#if defined(COM_BUILDING_LIBRARY)
#define COM_EXPORT __attribute__((visibility("default")))
#else
#define COM_EXPORT
#endif

#endif  // COM_COMMON_BASE_COMEXPORT_H_
