// A plug-in that loads beside others that do not. Its operator "sound" answers nothing, successfully.
#include "QORFunctionality/QOROpFactory.h"
#include "QORFunctionality/QORPlugIn.h"

namespace {

class Sound final : public QOR::QOROperatorFunctionalPrototype {
public:
    Sound() {
        static const MethodDescriptor methods[] = {method("select", &Sound::select, 100, 0), {"", nullptr, 0, 0}};
        registerMethods(methods);
    }

private:
    void select(QOR::QORMessageIterator*, QOR::QORMessageIterator*) {}
};

const QOR::QORPtr<QOR::QOROpFactory> factory = QOR::newOperatorFactory<Sound, 10, 20, 4, true>("sound", 1, 0);

}  // namespace

extern "C" int initQORPlugIn() {
    return 0;
}
extern "C" int finiQORPlugIn() {
    return 0;
}
