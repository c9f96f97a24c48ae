// A whole plug-in: the operator "greeter" answers the request "greet" with a greeting for the name it is given.
#include <QORFunctionality/QOROpFactory.h>
#include <QORFunctionality/QORPlugIn.h>

struct Greeter final : QOR::QOROperatorFunctionalPrototype {
    Greeter() {
        static const MethodDescriptor methods[] = {method("greet", &Greeter::greet, 100, 0), {"", nullptr, 0, 0}};
        registerMethods(methods);
    }
    void greet(QOR::QORMessageIterator* request, QOR::QORMessageIterator* response) {
        std::string name;
        if (request->getValue(name) != 0) return addError(response, QOR::QORErrors, QOR::errBadRequest, "whom?");
        response->putValue("Hello, " + name + "!", QOR::tag::value);
    }
};

static const auto factory = QOR::newOperatorFactory<Greeter, 10, 20, 4, true>("greeter", 1, 0);

int initQORPlugIn() {
    return 0;
}
int finiQORPlugIn() {
    return 0;
}
