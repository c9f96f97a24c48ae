// A plug-in that was built with the SDK of a version before.
#include "QORFunctionality/QORPlugIn.h"

extern "C" int qorOfBefore();

int initQORPlugIn() {
    return qorOfBefore();
}
int finiQORPlugIn() {
    return 0;
}
