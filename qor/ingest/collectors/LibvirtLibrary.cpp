#include "ingest/collectors/LibvirtLibrary.h"

#include "QORCommon/QORUtf8.h"

namespace QOR {
namespace {

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
    try {
        static const LibvirtLibrary library;
        return library;
    } catch (const LibvirtFailure&) {
        throw;
    } catch (const std::runtime_error& failure) {
        throw LibvirtFailure(failure.what(), 0, 0);
    }
}

LibvirtLibrary::LibvirtLibrary() : LoadedLibrary("libvirt.so.0", "libvirt's library cannot be used") {
    if (initialize() < 0) throw LibvirtFailure("libvirt's library cannot be used: it does not begin", 0, 0);
    setErrorFunc(nullptr, keepQuiet);
}

}  // namespace QOR
