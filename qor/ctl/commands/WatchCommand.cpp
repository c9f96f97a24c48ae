#include <unistd.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "QORCommon/QORTime.h"
#include "commands/Commands.h"
#include "commands/Printing.h"

namespace QOR {

void runWatched(const WatchOptions& watch, const PrintOptions& print,
                const std::function<void(const PrintOptions&)>& command) {
    if (!watch.seconds) return command(print);
    PrintOptions rolling = print;
    rolling.pages = false;
    const bool onTerminal = ::isatty(STDOUT_FILENO) != 0;
    for (bool again = false;; again = true) {
        if (onTerminal) std::cout << "\x1b[H\x1b[2J" << std::flush;
        try {
            command(rolling);
        } catch (const CtlError& error) {
            // What was right the first time will be again.
            if (!again) throw;
            tellPerson(error.what());
        }
        std::this_thread::sleep_for(std::chrono::seconds(*watch.seconds));
        if (!onTerminal && rolling.form->isForPeople && !rolling.pattern) std::cout << "\n" << std::flush;
    }
}

}  // namespace QOR
