/// \file
/// What a plug-in library exports. Including this header declares both entry points with the right linkage.
///
/// The host maps the library (static initialisation makes its factories), calls initQORPlugIn once, uses the
/// factories, and calls finiQORPlugIn before it unmaps the library. Both return 0 for success.
#pragma once

#include "QORCommon/QORExport.h"

extern "C" {
QOR_API int initQORPlugIn();
QOR_API int finiQORPlugIn();
}
