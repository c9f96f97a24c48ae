#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "QORCommon/QORTime.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "output/Output.h"

namespace QOR {
namespace {

void put(const char* text) {
    FileOutput out(STDOUT_FILENO);
    out << text;
    out.flush();
}

}  // namespace

void runWatched(const WatchOptions& watch, const PrintOptions& print,
                const std::function<void(const PrintOptions&)>& command) {
    if (!watch.seconds) return command(print);
    PrintOptions rolling = print;
    rolling.pages = false;
    const bool onTerminal = ::isatty(STDOUT_FILENO) != 0;
    for (bool again = false;; again = true) {
        if (onTerminal) put("\x1b[H\x1b[2J");
        try {
            command(rolling);
        } catch (const CtlError& error) {
            // What was right the first time will be again.
            if (!again) throw;
            tellPerson(error.what());
        }
        std::this_thread::sleep_for(std::chrono::seconds(*watch.seconds));
        if (!onTerminal && rolling.form->isForPeople && !rolling.pattern) put("\n");
    }
}

}  // namespace QOR
