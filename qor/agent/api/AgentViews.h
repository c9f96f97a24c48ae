/// \file
/// What views the database has, and what is told of them. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "QORQuery/QORColumnKind.h"
#include "agent/api/AgentCall.h"

namespace QOR {

struct AgentViewColumn {
    std::string name;
    std::string type;  ///< in lower case, without its length
    std::int32_t length = 0;
    QORColumnKind kind = QORColumnKind::Text;
    bool ofRowSecurity = false;  ///< tells who may see the row, and nothing that anybody would look for in it
};

struct AgentView {
    std::string name;
    std::vector<AgentViewColumn> columns{};
    std::vector<std::string> names{};  ///< of the columns

    const AgentViewColumn* find(std::string_view column) const noexcept;
};

/// The views as requests are read by. Operators learn views once, so they are kept; one that is asked for and not known
/// has them read again.
class AgentViews {
public:
    struct CaseLess {
        using is_transparent = void;
        bool operator()(std::string_view a, std::string_view b) const;
    };
    using List = std::map<std::string, AgentView, CaseLess>;

    /// \throws AException; AgentProblemException 404 for a view that there is not
    std::shared_ptr<const List> listWith(std::string_view view);

private:
    std::mutex m_mutex;
    std::shared_ptr<const List> m_list;  // guarded by m_mutex; null: nobody has asked
};

/// `{"views":[{"name":"...","columns":[{"name":"...","type":"...","length":0},...]},...]}`, as the database is now.
HttpReply answerViews(AgentCall& call);

/// `{"name":"vOpLog","meaning":"...","securable":true,"columns":[{"name":"op","type":"text","declared":"nvarchar",
/// "length":128,"meaning":"...","indexed":false},...],"indexes":[{"name":"...","columns":["time"]},...]}`. A column is
/// indexed when an index begins with it: conditions on it and sorting by it need not read all rows.
HttpReply answerView(AgentCall& call);

}  // namespace QOR
