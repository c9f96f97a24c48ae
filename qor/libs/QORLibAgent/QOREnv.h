/// \file
/// QOREnv: an environment (a container, a virtual machine, the host itself) as the agent knows it, and its
/// configurations. Immutable once made and shared by reference counting, so that any thread may read one.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORReferenceCounter.h"
#include "QORLibAgent/QORInfo.h"
#include "QORMessage/QORTags.h"

namespace QOR {

class QORMessageIterator;

/// What is known of an operating system.
struct QOROSInfo {
    std::optional<std::string> name;
    std::optional<std::string> platform;
    std::optional<std::string> version;
    std::optional<std::string> kernel;

    friend bool operator==(const QOROSInfo&, const QOROSInfo&) = default;
};

/// A configuration while it is put together. A member that is not known is empty.
struct QOREnvConfigData {
    std::optional<std::string> name;
    std::optional<std::string> description;
    std::optional<std::string> domain;
    std::optional<std::string> hostname;
    std::optional<std::string> architecture;
    std::optional<std::string> type;
    QOROSInfo os;
    std::optional<std::vector<std::string>> addresses;
    QORInfo further;  ///< the members beyond these: the children of a nameless document, "os" among them when the
                      ///< operating system has further members

    /// Reads a configuration from the document that holds all its members: name, description, domain, hostname,
    /// architecture, type, os with name, platform, version and kernel, ip (once an address), and any others.
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

    const std::optional<std::string>& name() const noexcept { return m_data.name; }
    const std::optional<std::string>& description() const noexcept { return m_data.description; }
    const std::optional<std::string>& domain() const noexcept { return m_data.domain; }
    const std::optional<std::string>& hostname() const noexcept { return m_data.hostname; }
    const std::optional<std::string>& architecture() const noexcept { return m_data.architecture; }
    /// The name of the type, e.g. "container".
    const std::optional<std::string>& type() const noexcept { return m_data.type; }
    const QOROSInfo& os() const noexcept { return m_data.os; }
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
/// name, description, domain, hostname, architecture, type, os (name, platform, version, kernel), ip once an address,
/// then the further members, nested as they are. What is not known is left out. The cursor stays where it is.
/// A member without a name has no element. The message must allow for QORInfo::maxDepth and four levels more.
/// \returns 0; non-zero when it does not fit, with the cursor somewhere in what was appended so far
QOR_API int putObj(QORMessageIterator& at, QORTag id, const QOREnv& env);

/// Appends an info document as a child `id`: its parameters are nested elements of their names, its text the text.
/// \returns 0; non-zero when it does not fit
QOR_API int putObj(QORMessageIterator& at, QORTag id, const QORInfo& info);

}  // namespace QOR
