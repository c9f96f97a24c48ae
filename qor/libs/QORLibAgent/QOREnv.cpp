#include "QORLibAgent/QOREnv.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORMessage.h"

namespace QOR {
namespace {

constexpr std::string_view osMember = "os";
constexpr std::string_view addressMember = "ip";

/// Takes the parameter when it is one of the group's members and the first of its name.
bool takeMember(const QORInfo& parameter, std::string_view group, QOREnvConfigData& config) {
    for (const QOREnvMemberRow& row : envMembers) {
        if (row.group != group || row.name != parameter.name() || !parameter.children().empty()) continue;
        auto& text = config[row.member];
        if (text) return false;
        text = parameter.value();
        return true;
    }
    return false;
}

void takeOs(const QORInfo& os, QOREnvConfigData& config) {
    QORInfo further{std::string(osMember)};
    for (const QORInfo& parameter : os.children()) {
        if (!takeMember(parameter, osMember, config)) further.add(parameter);
    }
    if (!further.children().empty()) config.further.add(std::move(further));
}

void takeParameter(const QORInfo& parameter, QOREnvConfigData& config) {
    if (parameter.name() == osMember) return takeOs(parameter, config);
    if (parameter.name() == addressMember && parameter.children().empty()) {
        if (parameter.value().empty()) return;
        if (!config.addresses) config.addresses.emplace();
        config.addresses->push_back(parameter.value());
        return;
    }
    if (!takeMember(parameter, {}, config)) config.further.add(parameter);
}

bool hasMember(const QOREnvConfig& config, std::string_view group) {
    return std::any_of(envMembers.begin(), envMembers.end(),
                       [&](const QOREnvMemberRow& row) { return row.group == group && config.text(row.member); });
}

/// Puts parts of an environment under a cursor; remembers whether any did not fit.
class Putter {
public:
    explicit Putter(QORMessageIterator& at) : m_at(at) {}

    /// Runs `put` with the cursor in a new child of that name, which is one of this file.
    template <class Put>
    void inside(std::string_view name, Put put) {
        inside(QORTagDictionary::instance().intern(name), put);
    }
    template <class Put>
    void inside(QORTag id, Put put) {
        if (m_fits) fill(m_at.addChild(id), put);
    }
    /// The same for a name that came with the data.
    template <class Put>
    void insideNamed(std::string_view name, Put put) {
        if (m_fits && !name.empty()) fill(m_at.addNamed(name), put);
    }

    void text(std::string_view name, std::string_view value) {
        inside(name, [&] { check(m_at.putValue(value)); });
    }
    void text(std::string_view name, const std::optional<std::string>& value) {
        if (value) text(name, std::string_view(*value));
    }
    void eid(std::string_view name, const QOREID& value) {
        if (value.isValid()) text(name, std::string_view(value.toString()));
    }
    void number(std::string_view name, int value) {
        inside(name, [&] { check(m_at.putInt(value)); });
    }

    /// The text and the parameters of a document, into the current element. As deep as documents may be.
    void content(const QORInfo& info) {
        if (info.children().empty()) {
            if (!info.value().empty()) check(m_at.putValue(info.value()));
            return;
        }
        for (const QORInfo& child : info.children())
            insideNamed(child.name(), [&] { content(child); });
    }

    void config(const QOREnvConfig& config) {
        members(config, {});
        os(config, config.further().getParameter(osMember));
        if (config.addresses()) {
            for (const std::string& address : *config.addresses())
                text(addressMember, std::string_view(address));
        }
        for (const QORInfo& parameter : config.further().children()) {
            if (parameter.name() != osMember) insideNamed(parameter.name(), [&] { content(parameter); });
        }
    }

    void env(const QOREnv& env) {
        eid("eid", env.getEID());
        eid("parent_eid", env.getParentEID());
        text("title", env.getTitle());
        number("state", env.getStatus().state);
        number("transition", env.getStatus().transition);
        if (!env.getConfig()->empty()) inside("config", [&] { config(*env.getConfig()); });
        if (!env.getVirtualConfig()->empty()) inside("virtual_config", [&] { config(*env.getVirtualConfig()); });
    }

    int result() const noexcept { return m_fits ? 0 : -1; }

private:
    void check(int result) noexcept { m_fits = m_fits && result == 0; }

    template <class Put>
    void fill(int added, Put put) {
        check(added);
        if (!m_fits) return;
        put();
        if (m_fits) check(m_at.seekUp());
    }

    void members(const QOREnvConfig& config, std::string_view group) {
        for (const QOREnvMemberRow& row : envMembers) {
            if (row.group == group) text(row.name, config.text(row.member));
        }
    }

    void os(const QOREnvConfig& config, const QORInfo* further) {
        if (!hasMember(config, osMember) && further == nullptr) return;
        inside(osMember, [&] {
            members(config, osMember);
            if (further != nullptr) content(*further);
        });
    }

    QORMessageIterator& m_at;
    bool m_fits = true;
};

/// Documents are nested as deep as they may be, below what an environment puts around them.
QORMessageLimits configLimits() {
    QORMessageLimits limits;
    limits.depth = static_cast<std::uint32_t>(QORInfo::maxDepth) + 4;
    return limits;
}

struct ConfigMessage {
    QORMessage message{configLimits()};
    QORBinaryIterator at = message.root();
};

const QORPtr<const QOREnvConfig>& emptyConfig() {
    static const QORPtr<const QOREnvConfig> config = makeQORPtr<QOREnvConfig>();
    return config;
}

QORPtr<const QOREnvConfig> orEmpty(QORPtr<const QOREnvConfig> config) {
    if (!config) return emptyConfig();
    return config;
}

}  // namespace

QOREnvConfigData QOREnvConfigData::fromDocument(const QORInfo& document) {
    QOREnvConfigData config;
    for (const QORInfo& parameter : document.children())
        takeParameter(parameter, config);
    return config;
}

QOREnvConfig::~QOREnvConfig() = default;

std::shared_ptr<QORMessageIterator> QOREnvConfig::getMessageIterator() const {
    auto owner = std::make_shared<ConfigMessage>();
    QORBinaryIterator root = owner->message.root();
    Putter putter(root);
    putter.config(*this);
    if (putter.result() != 0) return nullptr;
    return {owner, &owner->at};
}

QOREnv::QOREnv(const QOREID& eid) : QOREnv(eid, QOREID(), std::nullopt, Status(), nullptr, nullptr) {}

QOREnv::QOREnv(const QOREID& eid, const QOREID& parentEid, std::optional<std::string> title, Status status,
               QORPtr<const QOREnvConfig> config, QORPtr<const QOREnvConfig> virtualConfig)
    : m_eid(eid),
      m_parentEid(parentEid),
      m_title(std::move(title)),
      m_status(status),
      m_config(orEmpty(std::move(config))),
      m_virtualConfig(orEmpty(std::move(virtualConfig))) {}

QOREnv::~QOREnv() = default;

int putObj(QORMessageIterator& at, QORTag id, const QOREnv& env) {
    Putter putter(at);
    putter.inside(id, [&] { putter.env(env); });
    return putter.result();
}

int putObj(QORMessageIterator& at, QORTag id, const QORInfo& info) {
    Putter putter(at);
    putter.inside(id, [&] { putter.content(info); });
    return putter.result();
}

}  // namespace QOR
