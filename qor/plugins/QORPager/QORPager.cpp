#include "QORFunctionality/QORPlugIn.h"

// All registration is done by the factories' static initialisation, so that there is nothing left to do here and
// calling either function again changes nothing.

int initQORPlugIn() {
    return 0;
}

int finiQORPlugIn() {
    return 0;
}
