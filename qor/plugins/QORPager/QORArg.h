/// \file
/// Rows: the candidate results of a "pager" selection.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "QORCommon/QORGuid.h"
#include "QORCommon/QORReferenceCounter.h"
#include "QORLibAgent/QOREnv.h"
#include "QORLibAgent/QORInfo.h"
#include "QORLibAgent/QORLogs.h"

namespace QOR {

class QORMessage;
class QORMessageIterator;

/// A row that stands for an environment, and the base of rows of logs, which carry one too. Unchanging but for the
/// cache of its message; used by one request, on one thread at a time. Which kind of row it is, is told by its class,
/// never by the field that reads it.
class QORArg {
public:
    /// \param environment of the row; may be null
    explicit QORArg(QORPtr<const QOREnv> environment = {});
    QORArg(const QORArg&) = delete;
    QORArg& operator=(const QORArg&) = delete;

    /// The row's info document; the rows of environments share an empty one.
    virtual const QORInfo& getInfo() const;
    virtual ~QORArg();
    /// A cursor on the root of the environment's message, whose only element is tag::env; null for a row without an
    /// environment, and when the message could not be made, which the next call tries again. The message is made by
    /// the first call and lives as long as the row.
    virtual std::shared_ptr<QORMessageIterator> getMessage() const;

    /// Null for rows without an environment.
    const QOREnv* env() const noexcept { return m_env.get(); }

private:
    QORPtr<const QOREnv> m_env;
    mutable std::unique_ptr<QORMessage> m_message;
};

/// The handle by which a source, a sort and a writer share a row.
using ArgCSP = std::shared_ptr<const QORArg>;

/// Where a record of a log came from, as its info document tells.
struct QORLogDBEntryOrigin {
    /// Bytes that a type may have.
    static constexpr std::size_t mostTypeBytes = 16;

    /// What the parameter "source_env" of the document says; what it does not say stays empty.
    static QORLogDBEntryOrigin fromInfo(const QORInfo& info);
    /// Takes the text, cut at a whole UTF-8 character to what a type may have.
    void setType(std::string_view text);

    QOREID eid;
    std::string type;
    std::optional<std::string> title;
};

/// A record of the operation log.
class QORProgressArg final : public QORArg {
public:
    explicit QORProgressArg(QORPtr<const QOREnv> environment) : QORArg(std::move(environment)) {}
    ~QORProgressArg() override;
    const QORInfo& getInfo() const override { return record.message; }

    /// The environment at a position of those that the operation touches; null past the end. Going through them in
    /// order costs linear time.
    const QOREID* touchedEnv(std::size_t index) const;

    QORRequestProgressData record;
    QORLogDBEntryOrigin origin;

private:
    /// Where the last look-up ended.
    mutable std::set<QOREID>::const_iterator m_touched;
    mutable std::optional<std::size_t> m_touchedIndex;
};

/// A record of the event log.
class QOREventArg final : public QORArg {
public:
    explicit QOREventArg(QORPtr<const QOREnv> environment) : QORArg(std::move(environment)) {}
    ~QOREventArg() override;
    const QORInfo& getInfo() const override { return event.info; }

    QOREvent event;
    QORLogDBEntryOrigin origin;
};

}  // namespace QOR
