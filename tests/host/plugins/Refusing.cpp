// A plug-in that does not want to start.
#include "QORFunctionality/QORPlugIn.h"

extern "C" int initQORPlugIn() {
    return 7;
}
extern "C" int finiQORPlugIn() {
    return 0;
}
