// A plug-in that loads beside others that do not. Its operator "sound" answers nothing, successfully, and its collector
// "echo" brings an event for each line of a file.
#include <cstdint>
#include <fstream>
#include <string>

#include "QORFunctionality/QORCollector.h"
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

class Echo final : public QOR::QORCollector {
public:
    Echo() : QORCollector({.name = "echo", .source = "/etc/echo"}) {}

    bool collect(QOR::QORCollection& collection) override {
        std::ifstream file(collection.root() / "etc/echo");
        if (!file) return false;
        const std::uint64_t known = collection.position().empty() ? 0 : std::stoull(collection.position());
        std::uint64_t read = 0;
        for (std::string line; std::getline(file, line);) {
            if (read++ >= known)
                collection.add(R"({"kind":"event","time":1,"source":"echo","category":")" + line + R"(","eid":")" +
                               collection.machine().toString() + "\"}");
        }
        collection.setPosition(std::to_string(read));
        return true;
    }
};

Echo echo;

}  // namespace

extern "C" int initQORPlugIn() {
    return 0;
}
extern "C" int finiQORPlugIn() {
    return 0;
}
