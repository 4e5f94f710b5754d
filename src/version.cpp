#include <carrow/version.h>

extern "C" {

const double CarrowPrivateVersionNumber = 1.0;

const unsigned char CarrowPrivateVersionString[] = "@(#)PROGRAM:CarrowPrivate  PROJECT:carrowd-1\n";
}
