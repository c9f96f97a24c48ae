#include "process/TellPerson.h"

#include <iostream>
#include <string>

namespace QOR {
namespace {

bool wantsNoNotes = false;

}  // namespace

void tellPerson(std::string_view text) {
    std::cerr << "qorctl: " << text << (text.ends_with('\n') ? "" : "\n") << std::flush;
}

void tellNote(std::string_view text) {
    if (!wantsNoNotes) tellPerson("note: " + std::string(text));
}

void setQuiet(bool quiet) noexcept {
    wantsNoNotes = quiet;
}

}  // namespace QOR
