#include "conformance/CheckReport.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <iterator>
#include <utility>

#include "QORCommon/QORUtf8.h"

namespace QOR {
namespace {

/// A line is a word and texts, tabs between them.
constexpr char between = '\t';
/// What stands before the name of a check that is done.
constexpr char sound = '+';
constexpr char faulted = '-';

std::string onOneLine(std::string_view text) {
    std::string line = toUtf8(text);
    for (char& ch : line)
        if (static_cast<unsigned char>(ch) < ' ') ch = ' ';
    return line;
}

std::string_view takeText(std::string_view& line) {
    const std::size_t end = std::min(line.find(between), line.size());
    const std::string_view text = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return text;
}

constexpr std::string_view levelWords[] = {"fine", "advice", "fault"};

}  // namespace

std::vector<std::string> wordsOf(const DoneChecks& done) {
    std::vector<std::string> words;
    words.reserve(done.size());
    for (const auto& [check, isSound] : done)
        words.push_back((isSound ? sound : faulted) + check);
    return words;
}

DoneChecks doneChecksOf(std::span<const std::string> words) {
    DoneChecks done;
    for (const std::string& word : words)
        if (!word.empty()) done[word.substr(1)] = word.front() == sound;
    return done;
}

bool CheckReport::run(const std::string& check, const std::function<CheckOutcome()>& body) {
    const auto [done, isNew] = m_done.try_emplace(check, false);
    if (!isNew) return done->second;
    tell("begin", {check});
    CheckOutcome outcome;
    try {
        outcome = body();
    } catch (const std::exception& exception) {
        outcome = CheckOutcome::fault(exception.what(), "");
    }
    tell(levelWords[static_cast<std::size_t>(outcome.level)], {check, outcome.found, outcome.todo});
    return done->second = outcome.level != QORPlugInFinding::Level::Fault;
}

void CheckReport::tell(std::string_view word, const std::vector<std::string_view>& texts) const {
    std::string line(word);
    for (const std::string_view text : texts)
        line.append(1, between).append(onOneLine(text));
    line += '\n';
    for (std::string_view rest = line; !rest.empty();) {
        const ssize_t size = ::write(m_descriptor, rest.data(), rest.size());
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) ::_exit(1);  // nobody waits for it any more
        rest.remove_prefix(static_cast<std::size_t>(size));
    }
}

void CheckReader::take(std::string_view bytes) {
    m_rest += bytes;
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = m_rest.find('\n', begin)) != std::string::npos; begin = end + 1)
        takeLine(std::string_view(m_rest).substr(begin, end - begin));
    m_rest.erase(0, begin);
}

void CheckReader::takeLine(std::string_view line) {
    const std::string_view word = takeText(line);
    const std::string text(takeText(line));
    if (word == "at") {
        m_at = text;
        return;
    }
    m_at.clear();
    m_running = word == "begin" ? text : "";
    for (std::size_t level = 0; level < std::size(levelWords); ++level) {
        if (word != levelWords[level]) continue;
        const std::string found(takeText(line));
        m_findings.push_back({text, static_cast<QORPlugInFinding::Level>(level), found, std::string(takeText(line))});
    }
}

}  // namespace QOR
