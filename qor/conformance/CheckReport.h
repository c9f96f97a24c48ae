/// \file
/// What the process that uses a plug-in tells the one that waits for it.
#pragma once

#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "conformance/QORPlugInCheck.h"

namespace QOR {

/// Where a process reports: standard output and standard error are the plug-in's.
constexpr int reportDescriptor = 3;

/// What a check has found.
struct CheckOutcome {
    QORPlugInFinding::Level level = QORPlugInFinding::Level::Fine;
    std::string found;
    std::string todo{};

    static CheckOutcome fine(std::string found) { return {QORPlugInFinding::Level::Fine, std::move(found)}; }
    static CheckOutcome advice(std::string found, std::string todo) {
        return {QORPlugInFinding::Level::Advice, std::move(found), std::move(todo)};
    }
    static CheckOutcome fault(std::string found, std::string todo) {
        return {QORPlugInFinding::Level::Fault, std::move(found), std::move(todo)};
    }
};

/// Checks by their names, and whether each found no fault.
using DoneChecks = std::map<std::string, bool>;
/// As processes are told of them.
std::vector<std::string> wordsOf(const DoneChecks& done);
/// \param words those of wordsOf()
DoneChecks doneChecksOf(std::span<const std::string> words);

/// Runs checks and reports each, before it begins and when it is done, so that of one that never ends it is known which
/// it was. One thread.
class CheckReport {
public:
    /// \param descriptor where it is reported \param done checks that an earlier process has begun: they are not
    /// repeated
    CheckReport(int descriptor, DoneChecks done) : m_descriptor(descriptor), m_done(std::move(done)) {}

    /// An exception is a fault. \returns whether it found no fault, here or in an earlier process
    bool run(const std::string& check, const std::function<CheckOutcome()>& body);
    /// What the check is at, in case that it goes no further.
    void at(std::string_view what) { tell("at", {what}); }

private:
    void tell(std::string_view word, const std::vector<std::string_view>& texts) const;

    int m_descriptor;
    DoneChecks m_done;
};

/// Reads what a process reports.
class CheckReader {
public:
    /// \param bytes as they come
    void take(std::string_view bytes);

    const std::vector<QORPlugInFinding>& findings() const noexcept { return m_findings; }
    /// The check that was begun and is not done; empty between checks.
    const std::string& running() const noexcept { return m_running; }
    const std::string& at() const noexcept { return m_at; }

private:
    void takeLine(std::string_view line);

    std::string m_rest;
    std::string m_running;
    std::string m_at;
    std::vector<QORPlugInFinding> m_findings;
};

}  // namespace QOR
