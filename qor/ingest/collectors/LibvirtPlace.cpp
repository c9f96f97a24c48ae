#include "ingest/collectors/LibvirtPlace.h"

#include <algorithm>
#include <initializer_list>
#include <vector>

#include "QORCommon/QORNumbers.h"
#include "ingest/collectors/EscapedPath.h"

namespace QOR {
namespace {

constexpr std::string_view nextMark = "next";
constexpr std::string_view sourceMark = "source";
constexpr std::string_view domainMark = "domain";
constexpr std::string_view snapshotMark = "snapshot";
constexpr std::string_view checkpointMark = "checkpoint";

LibvirtLife lifeOfNumber(std::string_view text) {
    return static_cast<LibvirtLife>(parseInt32(text).value_or(0));
}

std::string textOfLife(LibvirtLife life) {
    return std::to_string(static_cast<std::int32_t>(life));
}

std::uint64_t changeNumber(std::string_view text) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(parseInt64(text).value_or(0), 0));
}

}  // namespace

LibvirtPlace::LibvirtPlace(std::string_view position) {
    for (const std::string_view line : linesOf(position))
        readLine(line);
}

void LibvirtPlace::readLine(std::string_view line) {
    const std::vector<std::string_view> words = wordsOf(line);
    if (words.empty()) return;
    if (words[0] == nextMark && words.size() == 2) {
        next = std::max<std::uint64_t>(changeNumber(words[1]), 1);
    } else if (words[0] == sourceMark && words.size() == 2) {
        m_source = &sources[unescapePath(words[1])];
        m_domain = nullptr;
    } else if (words[0] == domainMark) {
        m_domain = nullptr;
        if (words.size() != 9 || m_source == nullptr) return;
        const auto eid = QORGUIDBase::parse(words[1]);
        if (!eid) return;
        m_domain = &(*m_source)[QOREID(*eid)];
        *m_domain = {
            changeNumber(words[2]), lifeOfNumber(words[3]), lifeOfNumber(words[4]), parseInt32(words[5]).value_or(-1),
            words[6] == "1",        std::string(words[7]),  unescapePath(words[8])};
    } else if ((words[0] == snapshotMark || words[0] == checkpointMark) && words.size() == 4 && m_domain != nullptr) {
        m_domain->backups[{words[0] == checkpointMark, unescapePath(words[1])}] = {parseInt64(words[2]).value_or(0),
                                                                                   std::string(words[3])};
    }
}

std::string LibvirtPlace::text() const {
    std::string text;
    const auto put = [&text](std::initializer_list<std::string_view> words) {
        for (const char* between = ""; const std::string_view word : words) {
            text.append(between).append(word);
            between = " ";
        }
        text += '\n';
    };
    put({nextMark, std::to_string(next)});
    for (const auto& [uri, domains] : sources) {
        put({sourceMark, escapePath(uri)});
        for (const auto& [eid, domain] : domains) {
            put({domainMark, eid.toString(), std::to_string(domain.number), textOfLife(domain.life),
                 textOfLife(domain.transition), std::to_string(domain.id), domain.isPersistent ? "1" : "0",
                 domain.digest.empty() ? "-" : domain.digest, escapePath(domain.name)});
            for (const auto& [key, backup] : domain.backups)
                put({key.first ? checkpointMark : snapshotMark, escapePath(key.second), std::to_string(backup.time),
                     backup.digest});
        }
    }
    return text;
}

}  // namespace QOR
