#include <poll.h>
#include <unistd.h>

#include <optional>
#include <thread>

#include "commands/Commands.h"
#include "commands/Printing.h"
#include "commands/RecordStream.h"
#include "process/Interrupt.h"

namespace QOR {
namespace {

/// Passes a Ctrl-C on to what collects in this process.
class StopOnInterrupt {
public:
    StopOnInterrupt() : m_thread([this](const std::stop_token& done) { wait(done); }) {}
    std::stop_token token() const { return m_source.get_token(); }
    bool isRequested() const { return m_interrupt.isRequested(); }

private:
    void wait(const std::stop_token& done) {
        while (!done.stop_requested()) {
            pollfd waiting{m_interrupt.descriptor(), POLLIN, 0};
            if (::poll(&waiting, 1, 50) > 0) {
                m_source.request_stop();
                return;
            }
        }
    }

    Interrupt m_interrupt;
    std::stop_source m_source;
    std::jthread m_thread;  // ends before what it looks at
};

QORCollectResult collectHere(Backend& backend, bool& interrupted) {
    const StopOnInterrupt stop;
    QORCollectResult result = backend.collect(stop.token());
    interrupted = stop.isRequested();
    return result;
}

}  // namespace

void runCollect(const ConnectionOptions& connection) {
    const auto backend = makeBackend(connection, BackendUse::Store);
    bool interrupted = false;
    const QORCollectResult result = connection.standalone ? collectHere(*backend, interrupted) : backend->collect({});
    for (const std::string& file : result.unreadable)
        tellNote(file);
    if (result.malformed > 0) tellNote(std::to_string(result.malformed) + " lines of what was read make no sense");
    FileOutput out(STDOUT_FILENO);
    out << describeCounts(result.stored);
    out.flush();
    if (result.stored.failure) throw CtlError::answered(1, result.stored.failure->reason);
    if (interrupted) throw CtlError(CtlExit::Interrupted, "interrupted; the counts are what is stored");
}

}  // namespace QOR
