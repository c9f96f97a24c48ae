// A plug-in with a collector that is called as the environment wants it (QOR_TEST_COLLECTOR_NAME).
#include <cstdlib>
#include <string>

#include "QORFunctionality/QORCollector.h"
#include "QORFunctionality/QORPlugIn.h"

namespace {

std::string wantedName() {
    const char* const name = std::getenv("QOR_TEST_COLLECTOR_NAME");
    return name == nullptr ? "named" : name;
}

class Named final : public QOR::QORCollector {
public:
    Named() : QORCollector({.name = wantedName(), .source = "nothing"}) {}
    bool collect(QOR::QORCollection&) override { return false; }
};

Named named;

}  // namespace

extern "C" int initQORPlugIn() {
    return 0;
}
extern "C" int finiQORPlugIn() {
    return 0;
}
