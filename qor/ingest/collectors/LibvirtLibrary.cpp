#include "ingest/collectors/LibvirtLibrary.h"

#include <dlfcn.h>

#include "QORCommon/QORUtf8.h"

namespace QOR {
namespace {

std::string reasonOfLoading() {
    const char* const reason = ::dlerror();
    return std::string("libvirt's library cannot be used: ") + (reason == nullptr ? "it is not there" : reason);
}

/// Unless it is given somewhere to put them, the library writes what fails on standard error.
void keepQuiet(void*, virErrorPtr) {}

}  // namespace

LibvirtFailure LibvirtFailure::last(const std::string& what) {
    const virErrorPtr error = LibvirtLibrary::instance().getLastError();
    if (error == nullptr || error->code == VIR_ERR_OK) return {what + ": no reason was given", VIR_ERR_OK, 0};
    const std::string text = error->message == nullptr ? "no reason was given" : toUtf8(error->message);
    return {what + ": " + text, error->code, error->code == VIR_ERR_SYSTEM_ERROR ? error->int1 : 0};
}

const LibvirtLibrary& LibvirtLibrary::instance() {
    static const LibvirtLibrary library;
    return library;
}

LibvirtLibrary::LibvirtLibrary() {
    if (initialize() < 0) throw LibvirtFailure("libvirt's library cannot be used: it does not begin", 0, 0);
    setErrorFunc(nullptr, keepQuiet);
}

template <class Function>
Function* LibvirtLibrary::find(const char* name) const {
    void* const symbol = ::dlsym(m_handle, name);
    if (symbol == nullptr) throw LibvirtFailure(reasonOfLoading(), 0, 0);
    return reinterpret_cast<Function*>(symbol);
}

void* LibvirtLibrary::load() {
    void* const handle = ::dlopen("libvirt.so.0", RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) throw LibvirtFailure(reasonOfLoading(), 0, 0);
    return handle;
}

}  // namespace QOR
