#pragma once

// The two data symbols that identify the library, readable from C and C++.

#ifdef __cplusplus
extern "C" {
#endif

/// The library's version number: 1.0.
extern const double CarrowPrivateVersionNumber;

/// "@(#)PROGRAM:CarrowPrivate  PROJECT:carrowd-1\n", NUL-terminated, in the what(1) format.
extern const unsigned char CarrowPrivateVersionString[];

#ifdef __cplusplus
}
#endif
