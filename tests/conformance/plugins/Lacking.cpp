// A plug-in that needs what nobody has.
#include <string>

#include "QORFunctionality/QOROpFactory.h"
#include "QORFunctionality/QORPlugIn.h"

namespace elsewhere {
int countThings(const std::string& name);
}

int initQORPlugIn() {
    return QOR::QOROpFactoryRegistry::instance().names().empty() ? elsewhere::countThings("things") : 0;
}
int finiQORPlugIn() {
    return 0;
}
