/// \file
/// QOREnv: an environment (a container, a virtual machine, the host itself) as the agent knows it, and its
/// configurations. Immutable once made and shared by reference counting, so that any thread may read one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORReferenceCounter.h"
#include "QORLibAgent/QORInfo.h"
#include "QORMessage/QORTags.h"

namespace QOR {

class QORMessageIterator;

/// The members of a configuration that are texts with a place of their own.
enum class QOREnvMember : std::uint8_t {
    Name,
    Description,
    Domain,
    Hostname,
    Architecture,
    Type,
    OsName,
    OsPlatform,
    OsVersion,
    OsKernel,
    Count,  ///< how many there are
};

/// How one of them is called.
struct QOREnvMemberRow {
    QOREnvMember member;
    std::string_view group;   ///< the member that it is a member of, "" for none
    std::string_view name;    ///< in its group
    std::string_view column;  ///< of the table of environments
};

/// All of them, in the order in which they are written, a group in one piece. Reading, checking, writing and storing
/// them is made of these rows: a new member is an enumerator and a row here, and a step of the schema for its column.
inline constexpr std::size_t envMemberCount = static_cast<std::size_t>(QOREnvMember::Count);
inline constexpr std::array<QOREnvMemberRow, envMemberCount> envMembers{{
    {QOREnvMember::Name, "", "name", "name"},
    {QOREnvMember::Description, "", "description", "description"},
    {QOREnvMember::Domain, "", "domain", "domain"},
    {QOREnvMember::Hostname, "", "hostname", "hostname"},
    {QOREnvMember::Architecture, "", "architecture", "architecture"},
    {QOREnvMember::Type, "", "type", "type"},
    {QOREnvMember::OsName, "os", "name", "os_name"},
    {QOREnvMember::OsPlatform, "os", "platform", "os_platform"},
    {QOREnvMember::OsVersion, "os", "version", "os_version"},
    {QOREnvMember::OsKernel, "os", "kernel", "os_kernel"},
}};

/// Whether each row stands in the place of its member.
constexpr bool areEnvMembersInOrder() {
    for (std::size_t i = 0; i < envMemberCount; ++i) {
        if (envMembers[i].member != static_cast<QOREnvMember>(i)) return false;
    }
    return true;
}
static_assert(areEnvMembersInOrder());

/// A configuration while it is put together. A member that is not known is empty.
struct QOREnvConfigData {
    std::array<std::optional<std::string>, envMemberCount> texts;
    std::optional<std::vector<std::string>> addresses;
    QORInfo further;  ///< the members beyond these: the children of a nameless document, "os" among them when the
                      ///< operating system has further members

    std::optional<std::string>& operator[](QOREnvMember member) { return texts[static_cast<std::size_t>(member)]; }

    /// Reads a configuration from the document that holds all its members: those of envMembers, ip (once an address),
    /// and any others.
    QOR_API static QOREnvConfigData fromDocument(const QORInfo& document);

    friend bool operator==(const QOREnvConfigData&, const QOREnvConfigData&) = default;
};

/// A configuration, or virtual configuration, of an environment.
class QOR_API QOREnvConfig final : public QORReferenceCounter {
public:
    /// One that holds no data.
    QOREnvConfig() = default;
    explicit QOREnvConfig(QOREnvConfigData data) : m_data(std::move(data)) {}
    ~QOREnvConfig() override;

    const std::optional<std::string>& text(QOREnvMember member) const noexcept {
        return m_data.texts[static_cast<std::size_t>(member)];
    }
    /// In the order in which they were configured.
    const std::optional<std::vector<std::string>>& addresses() const noexcept { return m_data.addresses; }
    /// Members beyond these.
    const QORInfo& further() const noexcept { return m_data.further; }
    bool empty() const { return m_data == QOREnvConfigData(); }

    /// A cursor on the root of a message of its own, which lives as long as the pointer: the members of the
    /// configuration are the children of the root, as below `config` of putObj(). Each call makes a new message, so
    /// any thread may call. Null when the configuration does not fit into a message.
    std::shared_ptr<QORMessageIterator> getMessageIterator() const;

private:
    QOREnvConfigData m_data;
};

/// An environment.
class QOR_API QOREnv final : public QORReferenceCounter {
public:
    struct Status {
        int state = 0;
        int transition = 0;
    };

    /// One of which nothing but its identifier is known: empty configurations, state and transition 0.
    explicit QOREnv(const QOREID& eid);
    /// \param config,virtualConfig null stands for an empty one
    QOREnv(const QOREID& eid, const QOREID& parentEid, std::optional<std::string> title, Status status,
           QORPtr<const QOREnvConfig> config, QORPtr<const QOREnvConfig> virtualConfig);
    ~QOREnv() override;

    const QOREID& getEID() const noexcept { return m_eid; }
    /// Invalid when there is no parent.
    const QOREID& getParentEID() const noexcept { return m_parentEid; }
    const std::optional<std::string>& getTitle() const noexcept { return m_title; }
    const Status& getStatus() const noexcept { return m_status; }
    /// Never null.
    const QORPtr<const QOREnvConfig>& getConfig() const noexcept { return m_config; }
    const QORPtr<const QOREnvConfig>& getVirtualConfig() const noexcept { return m_virtualConfig; }

private:
    QOREID m_eid;
    QOREID m_parentEid;
    std::optional<std::string> m_title;
    Status m_status;
    QORPtr<const QOREnvConfig> m_config;
    QORPtr<const QOREnvConfig> m_virtualConfig;
};

/// Appends the environment as a child `id` (usually tag::env) of the current element, with children eid, parent_eid,
/// title, state, transition, config and virtual_config. A configuration's children bear the names of its members:
/// those of envMembers in their order, ip once an address, then the further members, nested as they are. What is not
/// known is left out. The cursor stays where it is. A member without a name has no element. The message must allow for
/// QORInfo::maxDepth and four levels more. \returns 0; non-zero when it does not fit, with the cursor somewhere in what
/// was appended so far
QOR_API int putObj(QORMessageIterator& at, QORTag id, const QOREnv& env);

/// Appends an info document as a child `id`: its parameters are nested elements of their names, its text the text.
/// \returns 0; non-zero when it does not fit
QOR_API int putObj(QORMessageIterator& at, QORTag id, const QORInfo& info);

}  // namespace QOR
