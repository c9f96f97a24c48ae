// qorctl: the command-line client.
#include <signal.h>

#include <string>
#include <vector>

#include "CommandLine.h"
#include "QORCommon/QORPasswords.h"
#include "QORCommon/QORStandardStreams.h"
#include "process/Interrupt.h"
#include "rdbmspp/pool/QORRdbms.h"

int main(int argc, char** argv) {
    QOR::holdStandardStreams();
    QOR::QORRdbms::prepareProcess();
    // A reader that has seen enough is noticed where the output is written.
    ::signal(SIGPIPE, SIG_IGN);
    QOR::endOnInterrupt();
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    QOR::hidePasswords(argc, argv);
    const int status = QOR::runCommandLine(arguments);
    return QOR::endStandardOutput("qorctl") || status != 0 ? status : 1;
}
