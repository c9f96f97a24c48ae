#include <poll.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "commands/Commands.h"
#include "commands/Printing.h"
#include "commands/RecordProgress.h"
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

/// One that hangs cannot be ended, and who destroyed what it works with would wait for it.
void leaveBehind(std::unique_ptr<Backend> backend) {
    static const Backend* const left = backend.release();
    static_cast<void>(left);
}

QORCollectResult collectHere(std::unique_ptr<Backend> backend, bool& interrupted) {
    const StopOnInterrupt stop;
    QORCollectResult result;
    try {
        result = backend->collect(stop.token());
    } catch (...) {  // what hung before may hang still
        leaveBehind(std::move(backend));
        throw;
    }
    interrupted = stop.isRequested();
    if (result.outcome == QORCollectOutcome::Hung) leaveBehind(std::move(backend));
    return result;
}

/// \throws CtlError unless all is well
void tellOf(const QORCollectResult& result, bool interrupted) {
    for (const std::string& what : result.unreadable)
        tellNote(what);
    if (result.malformed > 0) tellNote(std::to_string(result.malformed) + " lines of what was read make no sense");
    FileOutput out(STDOUT_FILENO);
    out << describeCounts(result.stored);
    out.flush();
    if (result.stored.failure) throw CtlError::answered(1, result.stored.failure->reason);
    if (interrupted) throw CtlError(CtlExit::Interrupted, "interrupted; the counts are what is stored");
    if (!result.unreadable.empty()) throw CtlError::answered(1, "not everything could be collected");
}

}  // namespace

void runCollect(const ConnectionOptions& connection) {
    std::unique_ptr<Backend> backend = makeBackend(connection, BackendUse::Store);
    bool interrupted = false;
    RecordProgress progress(false);
    progress.tell("collecting from all sources", 0, 0, 0);
    const QORCollectResult result =
        connection.standalone ? collectHere(std::move(backend), interrupted) : backend->collect({});
    progress.clear();
    tellOf(result, interrupted);
}

}  // namespace QOR
