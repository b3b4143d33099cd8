// The application of header_c.c built as C++: the umbrella header, its packed
// layouts and the shared library's C names as a C++ program sees them.
#include "header_c.c"
