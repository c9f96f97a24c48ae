/// \file
/// Made-up requests that use the whole grammar of "pager2", with values that rows hold, hidden rows among them, and
/// with what engines stumble over.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "selfcheck/QORSecurityRequest.h"
#include "selfcheck/QORSecurityViews.h"

namespace QOR {

/// The same requests for the same views, sizes and seed. Whatever it makes has one right answer: where a page is cut
/// out, the rows are ordered by all that is selected.
class QORSecurityRequests {
public:
    /// \param views must outlive the object \param sizes rows that the client sees of each view; others are not asked
    QORSecurityRequests(const std::vector<QORCheckedView>& views, const std::map<std::string, std::size_t>& sizes,
                        std::uint64_t seed);
    QORSecurityRequest next();

private:
    struct Level {
        const QORCheckedView* view;
        bool outermost;
    };

    std::string select(const std::vector<Level>& around);
    std::string fields(const QORCheckedView& view, bool nested, std::vector<std::string>& outputs, bool& grouped);
    std::string sorting(const QORCheckedView& view, const std::vector<std::string>& outputs, bool total, bool grouped);
    std::string condition(const std::vector<Level>& levels, int depth);
    std::string comparison(const std::vector<Level>& levels);
    std::string likeCondition(const std::vector<Level>& levels);
    std::string list(const std::vector<Level>& levels);
    std::string operand(const std::vector<Level>& levels, const QORCheckedColumn** column);
    std::string literal(const QORCheckedView& view, const QORCheckedColumn* column);
    std::string textFor(const QORCheckedView& view, const QORCheckedColumn* column);
    std::string pattern(const QORCheckedView& view, const QORCheckedColumn* column);
    const QORCheckedColumn& comparable(const QORCheckedView& view);
    const QORCheckedView* nestedView(const std::vector<Level>& levels);
    std::uint64_t number(std::uint64_t below) { return m_dice.number(below); }
    bool chance(unsigned percent) { return m_dice.chance(percent); }
    template <class Container>
    const auto& pick(const Container& from) {
        return m_dice.pick(from);
    }
    void note(const char* shape) { noteShape(m_request, shape); }

    std::vector<const QORCheckedView*> m_views;
    std::map<std::string, std::size_t> m_sizes;
    QORSecurityDice m_dice;
    QORSecurityRequest m_request;
};

}  // namespace QOR
