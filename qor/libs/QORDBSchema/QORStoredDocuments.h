/// \file
/// The info documents in the host's tables: which of them can be read, and mending those that can be.
///
/// A document is a root element of XML (QORInfo). What stands behind it is no part of it and may be another record's;
/// a document whose end is missing cannot be read any more. Which ones those are is kept in the table
/// qor_unreadable_document, so that it can be told without reading everything: a check puts them in, triggers take
/// them out as soon as the document is replaced or its record removed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// How many documents of a column cannot be read.
struct QORUnreadableDocuments {
    std::string table;
    std::string column;
    std::uint64_t count = 0;

    friend bool operator==(const QORUnreadableDocuments&, const QORUnreadableDocuments&) = default;
};

/// Those that are known, by table and column; columns without any are left out. Costs what there are of them.
/// Nothing at all when the database is not the host's, or older than the knowledge.
/// \throws AException
QOR_API std::optional<std::vector<QORUnreadableDocuments>> unreadableDocuments(ASSession& session);

/// `2 in qor_backup.info, 1 in qor_event.info`; empty for none.
QOR_API std::string describe(const std::vector<QORUnreadableDocuments>& unreadable);

/// Takes the documents of records that were replaced off the list, as triggers do where they are on. \param table of
/// the records \param ids their eids for qor_environment, their ids else. Costs nothing much while the list is empty.
/// \throws AException
QOR_API void forgetUnreadableDocuments(ASSession& session, std::string_view table, const std::vector<std::string>& ids);

/// Reads all stored documents, a few at a time, and cuts off what stands behind them; renews the knowledge of those
/// that cannot be read, which are left as they are. Used by one thread; it holds no session, so that each step may have
/// a transaction of its own.
class QOR_API QORDocumentCheck {
public:
    /// What has been found so far in a column.
    struct Column {
        std::string table;
        std::string column;
        std::uint64_t read = 0;        ///< documents looked at
        std::uint64_t trimmed = 0;     ///< had something behind them (cut off, when mending)
        std::uint64_t unreadable = 0;  ///< left as they are
    };
    enum class Mode {
        Look,  ///< writes nothing
        Mend,
    };

    explicit QORDocumentCheck(Mode mode);

    /// Goes on with the next documents: at most 1,000, of which all but one together have at most 4 MiB. The session's
    /// transaction must be one for writing when mending. A step that throws may be repeated.
    /// \returns false when all have been read
    bool step(ASSession& session);
    const std::vector<Column>& columns() const noexcept { return m_columns; }

private:
    /// The documents of a range of records.
    struct Range;
    Range nextRange(ASSession& session) const;
    void check(ASSession& session, const Range& range);

    Mode m_mode;
    std::vector<Column> m_columns;
    std::size_t m_current = 0;  // index of the column
    std::int64_t m_last;        // the last record that has been looked at in it
};

}  // namespace QOR
