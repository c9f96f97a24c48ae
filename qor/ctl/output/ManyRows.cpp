#include "output/ManyRows.h"

#include <iostream>
#include <string>

#include "process/CtlError.h"

namespace QOR {
namespace {

/// No answer is none that wants them.
void requireWish(const std::string& question) {
    std::cerr << "qorctl: " << question << " [y/N] " << std::flush;
    std::string answer;
    if (!std::getline(std::cin, answer)) std::cerr << '\n';
    if (answer != "y" && answer != "Y" && answer != "yes") throw BrokenPipe();
}

}  // namespace

void ManyRows::expect(std::int64_t rows) {
    if (!m_asks || rows <= most) return;
    m_asks = false;
    requireWish("there are " + std::to_string(rows) + " rows or more for this terminal; show them?");
}

void ManyRows::askAfter(Output& out) {
    m_asks = false;
    out.flush();
    requireWish("these are " + std::to_string(most) + " rows, and there are more; go on?");
}

}  // namespace QOR
