// qorctl: the command-line client.
#include <signal.h>

#include "CommandLine.h"
#include "rdbmspp/pool/QORRdbms.h"

int main(int argc, char** argv) {
    QOR::QORRdbms::prepareProcess();
    // A reader that has seen enough is noticed where the output is written.
    ::signal(SIGPIPE, SIG_IGN);
    return QOR::runCommandLine({argv + 1, argv + argc});
}
