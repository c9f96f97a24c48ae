/// \file
/// Made-up requests of operator "pager": all its sources, filters over the whole language with values that rows hold,
/// hidden rows among them, and with what evaluators and engines stumble over.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "selfcheck/QORSecurityRequest.h"
#include "selfcheck/QORSecurityViews.h"

namespace QOR {

/// What values filters compare with.
struct QORPagerSamples {
    std::vector<std::string> eids;
    std::vector<std::string> times;
    std::vector<std::string> texts;
    std::vector<std::string> backups;  ///< texts of backups, which conditions of the database match

    /// From the host's own views, where there are.
    explicit QORPagerSamples(const std::vector<QORCheckedView>& views);
};

/// The same requests for the same samples, vocabulary and seed. The vocabulary must be the host's while it is made.
class QORPagerRequests {
public:
    /// \param samples must outlive the object
    QORPagerRequests(const QORPagerSamples& samples, std::uint64_t seed);
    QORSecurityRequest next();

private:
    enum Source { Environments, Operations, Events, Backups, sources };

    template <class Container>
    const auto& pick(const Container& from) {
        return m_dice.pick(from);
    }
    bool chance(unsigned percent) { return m_dice.chance(percent); }
    void note(const char* shape) { noteShape(m_request, shape); }

    std::string fields(Source source);
    std::string field(Source source);
    std::string rest(Source source);
    std::string limit();

    std::string filter(Source source);
    std::vector<std::string> termsOf(Source source);
    void addTerms(std::vector<std::string>& terms, const std::string& log);
    void addBackupTerms(std::vector<std::string>& terms);
    std::string expression(Source source, int depth);
    std::string comparison(Source source);
    std::string trouble();
    std::string operand(Source source, bool number);
    std::string name(Source source);
    std::string eid();
    std::string time();
    std::string text(const std::vector<std::string>& samples);
    std::string pattern(const std::vector<std::string>& samples);
    std::string quoted(const std::string& text);

    const QORPagerSamples& m_samples;
    std::array<std::vector<std::string>, sources> m_fields;
    std::vector<std::string> m_numbers;  ///< fields that hold numbers of environments
    QORSecurityDice m_dice;
    QORSecurityRequest m_request;
};

}  // namespace QOR
